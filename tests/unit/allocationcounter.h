// Counts what the process asks of the heap, so that a test can tell what hostile input costs.
#pragma once

#include <cstddef>

class AllocationCounter
{
public:
    AllocationCounter();

    // Bytes asked for since construction by all threads, whether or not they were given back meanwhile.
    std::size_t bytes() const;

    // How many times they asked.
    std::size_t allocations() const;

private:
    std::size_t m_startBytes;
    std::size_t m_startAllocations;
};
