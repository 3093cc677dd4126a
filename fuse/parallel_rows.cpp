#include "fuse/parallel_rows.h"

#include <algorithm>
#include <exception>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

namespace tevrin {

void parallel_rows(int32_t workers, int64_t rows,
                   const std::function<void(int64_t, int64_t)>& body) {
    parallel_worker_rows(workers, rows, [&body](int32_t, int64_t lo, int64_t hi) { body(lo, hi); });
}

void parallel_worker_rows(int32_t workers, int64_t rows,
                          const std::function<void(int32_t, int64_t, int64_t)>& body) {
    if (workers <= 1) {
        body(0, 0, rows);
        return;
    }
    const int64_t per = (rows + workers - 1) / workers;
    std::vector<std::exception_ptr> failures(static_cast<size_t>(workers));
    std::vector<std::thread> threads;
    threads.reserve(size_t(workers));
    std::exception_ptr start_failure;
    for (int32_t t = 0; t < workers; ++t) {
        const int64_t lo = t * per;
        const int64_t hi = std::min(lo + per, rows);
        if (hi <= lo) {
            break;
        }
        try {
            threads.emplace_back([&body, &failures, t, lo, hi] {
                try {
                    body(t, lo, hi);
                } catch (const std::bad_alloc&) {
                    failures[size_t(t)] = std::make_exception_ptr(
                        std::runtime_error("out of memory in a worker thread"));
                } catch (...) {
                    failures[size_t(t)] = std::current_exception();
                }
            });
        } catch (const std::system_error&) {
            start_failure =
                std::make_exception_ptr(std::runtime_error("cannot start a worker thread"));
            break;
        }
    }
    for (auto& thread : threads) {
        thread.join();
    }
    if (start_failure) {
        std::rethrow_exception(start_failure);
    }
    for (const auto& failure : failures) {
        if (failure) {
            std::rethrow_exception(failure);
        }
    }
}

int resolve_threads(int threads) {
    if (threads > 0) {
        return threads;
    }
    const unsigned hw = std::thread::hardware_concurrency();
    return hw == 0 ? 1 : int(hw);
}

}  // namespace tevrin
