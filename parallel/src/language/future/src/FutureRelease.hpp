#pragma once

// Releasing a language object's future without recursion.
//
// A continuation future holds its predecessors' language objects, and each
// object holds its future: dropping the last handle on a chain of N
// continuations would destroy N futures one inside another and overflow the
// stack for long chains. Every language object therefore releases its future
// through releaseFuture, which keeps a work list per thread: the outermost
// release on a thread drops futures one after another, and a release made
// while that is under way (by a future being destroyed) only joins the list.
// The stack stays a few frames deep whatever the chain's length.

#include <parallel/language/future/FutureBase.hpp>

#include <memory>

namespace parallel::language::future::detail {

// Drops `future`, and every future its destruction releases in turn, with no
// nesting beyond one level. Any thread; each thread has its own work list.
void releaseFuture(std::shared_ptr<FutureBase> future) noexcept;

} // namespace parallel::language::future::detail
