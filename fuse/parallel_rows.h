// Row work on plain threads: the only place the system starts threads.
//
// parallel_rows is called from one thread at a time; it starts its workers, joins
// them all before it returns, and keeps nothing between calls. `body` is called
// concurrently on disjoint ranges and must only write what its range owns.
#pragma once

#include <cstdint>
#include <functional>

namespace tevrin {

// Runs body(lo, hi) over equal contiguous ranges of [0, rows) on up to `workers`
// new threads and joins them all; with one worker, on the calling thread. A
// failure on any worker is rethrown on the calling thread after all are joined
// (an allocation failure as "out of memory in a worker thread"; a thread that
// cannot start as "cannot start a worker thread").
void parallel_rows(int32_t workers, int64_t rows,
                   const std::function<void(int64_t, int64_t)>& body);

// As parallel_rows, with the number of the worker (0 up to workers - 1, the
// range's position) passed first, so that each can keep its own scratch.
void parallel_worker_rows(int32_t workers, int64_t rows,
                          const std::function<void(int32_t, int64_t, int64_t)>& body);

// The hardware concurrency for `threads` of 0 or less (1 where it is unknown),
// else `threads`.
int resolve_threads(int threads);

}  // namespace tevrin
