#include "TaskFinishedListeners.hpp"

#include <parallel/language/future/ScopedTaskFinishedListener.hpp>
#include <parallel/language/future/TaskFinishedListener.hpp>

#include <foundation/core/sync/Mutex.hpp>
#include <foundation/usm/Detail.hpp>

#include <algorithm>
#include <atomic>
#include <memory>
#include <stdexcept>
#include <vector>

namespace parallel::language::future {

TaskFinishedListener::~TaskFinishedListener() = default;

namespace {

using ProcessStore = foundation::usm::Detail<foundation::usm::scope::Process>;

// How many listeners are registered, kept beside the registry so that a task
// finishing while none is registered skips it (and the process store's lock).
// Sequentially consistent: a listener registered before its owner looks at a
// task (under the task's or its future's mutex) is counted by every finish
// that its owner does not see.
std::atomic<long long> gListenerCount{0};

// The process-wide listener registry, owned by the host's process store.
// The list is never changed in place: adding or removing a listener replaces
// it, so that a notification pass takes the list under the mutex (one
// reference) and calls the listeners without it. Any thread.
class GlobalTaskFinishedListenerUSM {
public:
    using Listeners = std::vector<std::shared_ptr<TaskFinishedListener>>;

    void add(const std::shared_ptr<TaskFinishedListener>& listener) QZ_EXCLUDES(mutex_) {
        foundation::core::sync::LockGuard lock(mutex_);
        auto changed = std::make_shared<Listeners>(*listeners_);
        changed->push_back(listener);
        listeners_ = std::move(changed);
        ++gListenerCount;
    }

    void remove(const TaskFinishedListener* listener) QZ_EXCLUDES(mutex_) {
        foundation::core::sync::LockGuard lock(mutex_);
        auto changed = std::make_shared<Listeners>(*listeners_);
        gListenerCount -= static_cast<long long>(std::erase_if(
            *changed, [listener](const auto& entry) { return entry.get() == listener; }));
        listeners_ = std::move(changed);
    }

    void notifyTaskFinished() QZ_EXCLUDES(mutex_) {
        std::shared_ptr<const Listeners> pass;
        {
            foundation::core::sync::LockGuard lock(mutex_);
            pass = listeners_;
        }
        for (const auto& listener : *pass) {
            listener->onTaskFinished();
        }
    }

private:
    foundation::core::sync::Mutex mutex_;
    std::shared_ptr<const Listeners>
        listeners_ QZ_GUARDED_BY(mutex_) = std::make_shared<const Listeners>();
};

GlobalTaskFinishedListenerUSM& registry() {
    static const ProcessStore::ID id =
        ProcessStore::getNextID(typeid(GlobalTaskFinishedListenerUSM));
    const std::type_info& type = typeid(GlobalTaskFinishedListenerUSM);
    if (void* found = ProcessStore::find(id, type)) {
        return *static_cast<GlobalTaskFinishedListenerUSM*>(found);
    }
    ProcessStore::Holder holder(new GlobalTaskFinishedListenerUSM, [](void* p) {
        delete static_cast<GlobalTaskFinishedListenerUSM*>(p);
    });
    return *static_cast<GlobalTaskFinishedListenerUSM*>(
        ProcessStore::findOrInsert(id, type, std::move(holder)));
}

} // namespace

void detail::notifyTaskFinished() {
    if (gListenerCount.load() == 0) {
        return;
    }
    registry().notifyTaskFinished();
}

ScopedTaskFinishedListener::ScopedTaskFinishedListener(
    std::shared_ptr<TaskFinishedListener>&& listener)
    : listener_(std::move(listener)) {
    if (!listener_) {
        throw std::invalid_argument("A task-finished listener must not be null.");
    }
    registry().add(listener_);
}

ScopedTaskFinishedListener::~ScopedTaskFinishedListener() {
    try {
        registry().remove(listener_.get());
    } catch (...) {
        // Removal only fails if the mutex cannot be locked; the registry then
        // keeps its reference until the process store is destroyed.
    }
}

} // namespace parallel::language::future
