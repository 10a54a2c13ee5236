// What the benchmark programs share: registering their cases and running those that were asked for.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

// Cases by name. Beside Google Benchmark's own options a program takes "--iterations=N": every case runs
// exactly N times then, so that its instructions can be counted. What one iteration takes is the difference
// of two runs under callgrind, divided by the difference of their N.
class Suite
{
public:
    Suite(int &argc, char **argv)
    {
        static constexpr char option[] = "--iterations=";
        if (argc > 1 && std::strncmp(argv[1], option, sizeof option - 1) == 0) {
            iterations = std::atoll(argv[1] + sizeof option - 1);
            argv[1] = argv[0];
            --argc;
            ++argv;
        }
        benchmark::Initialize(&argc, argv);
        isUnderstood = !benchmark::ReportUnrecognizedArguments(argc, argv);
    }

    // `work` is called with the benchmark::State and `arguments`.
    template <typename Work, typename... Arguments>
    void add(const std::string &name, Work work, Arguments... arguments)
    {
        benchmark::internal::Benchmark *added =
            benchmark::RegisterBenchmark(name.c_str(), work, arguments...);
        if (iterations > 0) {
            added->Iterations(iterations);
        }
    }

    // The exit code of the program.
    int run() const { return isUnderstood && benchmark::RunSpecifiedBenchmarks() > 0 ? 0 : 1; }

private:
    benchmark::IterationCount iterations = 0;
    bool isUnderstood = false;
};
