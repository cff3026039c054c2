#include "FetchNextDrain.hpp"

#include <iqm/Iqm.hpp>

#include <algorithm>
#include <bit>
#include <utility>

namespace parallel::language::future::detail {

namespace {

bool isSubmitted(FutureState state) noexcept {
    return state != FutureState::Pending && state != FutureState::Unavailable;
}

} // namespace

const char* StaleFutures::what() const noexcept {
    return "The futures are not those the fetchNext drain was made for.";
}

void FinishedInbox::post(std::size_t index) {
    std::shared_ptr<iqm::Iqm> waiter;
    {
        foundation::core::sync::LockGuard lock(mutex_);
        posted_.push_back(index);
        waiter = waiter_;
    }
    if (waiter) {
        waiter->wakeUp();
    }
}

void FinishedInbox::takeAll(std::vector<std::size_t>& into) {
    foundation::core::sync::LockGuard lock(mutex_);
    into.insert(into.end(), posted_.begin(), posted_.end());
    posted_.clear();
}

void FinishedInbox::setWaiter(std::shared_ptr<iqm::Iqm> waiter) {
    foundation::core::sync::LockGuard lock(mutex_);
    waiter_ = std::move(waiter);
}

LowestIndexSet::LowestIndexSet(std::size_t size) {
    std::size_t words = size;
    do {
        words = std::max<std::size_t>((words + 63) / 64, 1);
        levels_.emplace_back(words, 0);
    } while (words > 1);
}

std::size_t LowestIndexSet::lowest() const noexcept {
    std::size_t index = 0;
    for (auto level = levels_.rbegin(); level != levels_.rend(); ++level) {
        index = index * 64 + static_cast<std::size_t>(std::countr_zero((*level)[index]));
    }
    return index;
}

void LowestIndexSet::insert(std::size_t index) noexcept {
    for (auto& level : levels_) {
        std::uint64_t& word = level[index / 64];
        const bool wasEmpty = word == 0;
        word |= std::uint64_t{1} << (index % 64);
        if (!wasEmpty) {
            return;
        }
        index /= 64;
    }
}

void LowestIndexSet::erase(std::size_t index) noexcept {
    for (auto& level : levels_) {
        std::uint64_t& word = level[index / 64];
        word &= ~(std::uint64_t{1} << (index % 64));
        if (word != 0) {
            return;
        }
        index /= 64;
    }
}

FetchNextDrain::FetchNextDrain(FutureSpan futures)
    : stopper_(futures.size()), watches_(futures.size(), Watch::Unwatched),
      finished_(futures.size()) {
    identities_.reserve(futures.size());
    for (std::size_t i = 0; i < futures.size(); ++i) {
        const FutureBase& future = *futures[i];
        identities_.push_back({&future, future.getID()});
        if (stopper_ == futures.size() && (future.isMultiFuture() || future.isInvalid())) {
            stopper_ = i;
            stopperState_ = future.isMultiFuture() ? FetchNextState::UnsupportedFutureType
                                                   : FetchNextState::InvalidFuture;
        }
    }
}

FetchNextDrain::~FetchNextDrain() = default;

FutureBase& FetchNextDrain::entry(FutureSpan futures, std::size_t index) const {
    FutureBase& future = *futures[index];
    const Identity& remembered = identities_[index];
    if (&future != remembered.future || future.getID() != remembered.id) {
        throw StaleFutures();
    }
    return future;
}

void FetchNextDrain::checkEnds(FutureSpan futures) const {
    if (futures.size() != identities_.size()) {
        throw StaleFutures();
    }
    if (!futures.empty()) {
        entry(futures, 0);
        entry(futures, futures.size() - 1);
    }
}

void FetchNextDrain::watch(FutureBase& future, std::size_t index, Watch watch) {
    watches_[index] = watch;
    (watch == Watch::Submitted ? submitted_ : notSubmitted_).push_back(index);
    // Runs on the finishing thread, or here when the future finished meanwhile.
    future.afterFinishThen(boost::launch::sync,
                           [inbox = std::weak_ptr<FinishedInbox>(inbox_), index] {
                               if (const auto alive = inbox.lock()) {
                                   alive->post(index);
                               }
                           });
}

void FetchNextDrain::absorbFinished(FutureSpan futures, bool inWait) {
    inbox_->takeAll(taken_);
    for (const std::size_t index : taken_) {
        if (inWait && watches_[index] == Watch::Submitted && !entry(futures, index).getRead()) {
            finishedInWait_ = std::min(finishedInWait_.value_or(index), index);
        }
        watches_[index] = Watch::Finished;
        finished_.insert(index);
    }
    taken_.clear();
}

std::optional<std::size_t> FetchNextDrain::nextFinished(FutureSpan futures) {
    absorbFinished(futures, false);
    std::optional<std::size_t> earliest;
    while (!finished_.empty()) {
        const std::size_t lowest = finished_.lowest();
        if (!entry(futures, lowest).getRead()) {
            earliest = lowest;
            break;
        }
        sawRead_ = true;
        finished_.erase(lowest);
    }
    const std::size_t limit = std::min(earliest.value_or(futures.size()), stopper_);
    while (frontier_ < limit) {
        FutureBase& future = entry(futures, frontier_);
        if (future.getRead()) {
            sawRead_ = true;
        } else if (!isSubmitted(future.getState())) {
            watch(future, frontier_, Watch::NotSubmitted);
        } else if (future.doGetWaitableFuture().is_ready()) {
            return frontier_; // examined again by the next call: read by then, or offered again
        } else {
            watch(future, frontier_, Watch::Submitted);
        }
        ++frontier_;
    }
    if (earliest && *earliest < stopper_) {
        return earliest;
    }
    return std::nullopt;
}

std::optional<FetchNextState> FetchNextDrain::stopper() const noexcept {
    if (stopper_ == identities_.size()) {
        return std::nullopt;
    }
    return stopperState_;
}

void FetchNextDrain::promoteSubmitted(FutureSpan futures) {
    std::erase_if(notSubmitted_, [&](std::size_t index) {
        if (watches_[index] != Watch::NotSubmitted) {
            return true;
        }
        if (!isSubmitted(entry(futures, index).getState())) {
            return false;
        }
        watches_[index] = Watch::Submitted;
        submitted_.push_back(index);
        return true;
    });
}

bool FetchNextDrain::hasRunning(FutureSpan futures) {
    for (; submittedFront_ < submitted_.size(); ++submittedFront_) {
        const std::size_t index = submitted_[submittedFront_];
        if (watches_[index] != Watch::Submitted) {
            continue;
        }
        // Read but not yet posted: its callback is still on its way.
        if (entry(futures, index).getRead()) {
            sawRead_ = true;
            continue;
        }
        return true;
    }
    return false;
}

void FetchNextDrain::beginWait(std::shared_ptr<iqm::Iqm> queueManager) {
    finishedInWait_.reset();
    inbox_->setWaiter(std::move(queueManager));
}

void FetchNextDrain::endWait() noexcept {
    inbox_->setWaiter(nullptr);
}

std::optional<std::size_t> FetchNextDrain::finishedSinceWaitBegan(FutureSpan futures) {
    absorbFinished(futures, true);
    return finishedInWait_;
}

} // namespace parallel::language::future::detail
