#include <foundation/usm/Detail.hpp>

#include <foundation/core/diag/terminate.hpp>

#include <atomic>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace foundation::usm {

namespace {

// The objects of the process scope. Lives until static destruction, when it
// destroys the objects newest first. Any thread.
class ProcessStore {
public:
    ~ProcessStore() {
        // Newest first, and outside the lock: a destructor may use the store.
        std::vector<Detail<scope::Process>::Holder> holders;
        {
            std::lock_guard guard(mutex_);
            for (auto id : insertionOrder_) {
                holders.push_back(std::move(slots_.at(id).holder));
            }
            slots_.clear();
            insertionOrder_.clear();
        }
        while (!holders.empty()) {
            holders.pop_back();
        }
    }

    void* find(Detail<scope::Process>::ID id, const std::type_info& type) {
        std::lock_guard guard(mutex_);
        const auto it = slots_.find(id);
        return it == slots_.end() ? nullptr : checked(it->second, type);
    }

    void* findOrInsert(Detail<scope::Process>::ID id, const std::type_info& type,
                       Detail<scope::Process>::Holder&& holder) {
        Detail<scope::Process>::Holder candidate = std::move(holder);
        void* stored = nullptr;
        {
            std::lock_guard guard(mutex_);
            auto it = slots_.find(id);
            if (it == slots_.end()) {
                it = slots_.emplace(id, Slot{&type, std::move(candidate)}).first;
                insertionOrder_.push_back(id);
            }
            stored = checked(it->second, type);
        }
        return stored; // a holder that was not stored is destroyed here, outside the lock
    }

private:
    struct Slot {
        const std::type_info* type;
        Detail<scope::Process>::Holder holder;
    };

    static void* checked(const Slot& slot, const std::type_info& type) {
        if (*slot.type != type) {
            core::diag::terminate(std::string("Process storage slot holds ") + slot.type->name() +
                                      ", not " + type.name() + ".",
                                  __FILE__, __LINE__, __func__);
        }
        return slot.holder.get();
    }

    std::mutex mutex_;
    std::unordered_map<Detail<scope::Process>::ID, Slot> slots_;
    std::vector<Detail<scope::Process>::ID> insertionOrder_;
};

ProcessStore& processStore() {
    static ProcessStore store;
    return store;
}

} // namespace

Detail<scope::Process>::ID Detail<scope::Process>::getNextID(const std::type_info&) {
    static std::atomic<ID> next{0};
    return next.fetch_add(1, std::memory_order_relaxed);
}

void* Detail<scope::Process>::find(ID id, const std::type_info& type) {
    return processStore().find(id, type);
}

void* Detail<scope::Process>::findOrInsert(ID id, const std::type_info& type, Holder&& holder) {
    return processStore().findOrInsert(id, type, std::move(holder));
}

} // namespace foundation::usm
