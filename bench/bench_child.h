// Runs a program as a child process and measures it: wall time, CPU time of the
// child, peak resident set, and, when asked, the sampled peaks of anonymous and
// file-backed memory. Shared by the end-to-end benchmarks.
//
// Threads: call from the benchmark's main thread.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace tevrin {

struct ChildRun {
    double seconds = 0.0;
    int status = -1;
    double cpu_seconds = 0.0;  // user + system time of the child
    long max_rss_kib = 0;      // ru_maxrss: anonymous and mapped file pages together
    long peak_anon_kib = 0;    // sampled RssAnon (only when sampling)
    long peak_file_kib = 0;    // sampled RssFile (only when sampling)
};

inline void sample_rss(pid_t pid, ChildRun& run) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("RssAnon:", 0) == 0) {
            run.peak_anon_kib = std::max(run.peak_anon_kib, std::atol(line.c_str() + 8));
        } else if (line.rfind("RssFile:", 0) == 0) {
            run.peak_file_kib = std::max(run.peak_file_kib, std::atol(line.c_str() + 8));
        }
    }
}

// Runs args[0] with standard output and error into files; with `sample`, polls
// the child's resident set every 2 ms (the timing then carries that polling).
inline ChildRun run_child(const std::vector<std::string>& args, const std::string& out_path,
                          const std::string& err_path, bool sample) {
    std::vector<char*> argv;
    for (const auto& a : args) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    const auto start = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        const int out = ::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) {
            _exit(127);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    ChildRun run;
    struct rusage usage = {};
    int status = 0;
    for (;;) {
        const pid_t got = wait4(pid, &status, sample ? WNOHANG : 0, &usage);
        if (got == pid) {
            break;
        }
        if (got < 0 && errno != EINTR) {
            throw std::runtime_error("wait4 failed");
        }
        if (got == 0) {
            sample_rss(pid, run);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.cpu_seconds = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                      double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
    run.max_rss_kib = usage.ru_maxrss;
    return run;
}

}  // namespace tevrin
