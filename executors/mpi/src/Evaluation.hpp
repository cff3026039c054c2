#pragma once

// One evaluation on a worker: the registered function of the task's name,
// called on the task's inputs, with what it prints as its diary. Any error
// of the function (or of rebuilding its inputs) becomes its result: it never
// leaves the evaluation. Worker rank.

#include "Codec.hpp"

#include <atomic>

namespace mpipool {

// The encoded kResult message of `task`. While the function runs,
// stopRequested() on this thread reads `stop`.
protocol::Bytes evaluate(const codec::TaskMessage& task, const std::atomic<bool>& stop) noexcept;

} // namespace mpipool
