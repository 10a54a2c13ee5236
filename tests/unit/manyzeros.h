// Inputs of gigabytes that take no memory: the kernel has one page for all that nobody wrote to.
#pragma once

#include <QByteArray>

#include <cstddef>
#include <cstring>

#include <sys/mman.h>

// `header` and `count` zeros.
class ManyZeros
{
public:
    ManyZeros(const QByteArray &header, std::size_t count)
        : m_size(static_cast<std::size_t>(header.size()) + count),
          m_memory(mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                        -1, 0))
    {
        if (isThere()) {
            std::memcpy(m_memory, header.constData(), static_cast<std::size_t>(header.size()));
        }
    }
    ~ManyZeros()
    {
        if (isThere()) {
            munmap(m_memory, m_size);
        }
    }
    Q_DISABLE_COPY(ManyZeros)

    bool isThere() const { return m_memory != MAP_FAILED; }
    // For as long as this object lives.
    QByteArray bytes() const
    {
        return QByteArray::fromRawData(static_cast<const char *>(m_memory), static_cast<int>(m_size));
    }

private:
    std::size_t m_size;
    void *m_memory;
};
