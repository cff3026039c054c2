// The command distributor. One mutex guards the live requests and their
// stages; work, delegates and continuations always run with it released, so
// they may submit, release or cancel other requests.

#include <cmddistributor/CmdDistributor.hpp>

#include <foundation/core/diag/terminate.hpp>
#include <foundation/core/except/Exception.hpp>
#include <foundation/core/str/Utf.hpp>
#include <foundation/core/sync/Mutex.hpp>
#include <iqm/Iqm.hpp>

#include <boost/intrusive/list.hpp>

#include <optional>
#include <unordered_map>
#include <vector>

namespace cmddistributor {

namespace {

// The queue of requests that name none; made once, shared by all.
const RunOptions::QueueName& defaultQueue() {
    static const RunOptions::QueueName name =
        std::make_shared<const std::u16string>(u"serialQueueWork");
    return name;
}

RunOptions::QueueName shareQueueName(std::u16string name) {
    if (name.empty()) {
        return defaultQueue();
    }
    return std::make_shared<const std::u16string>(std::move(name));
}

void write(const Sink& sink, const SinkTraits& traits, const std::u16string& text) {
    if (!sink || text.empty()) {
        return;
    }
    sink->sputn(text.data(), static_cast<std::streamsize>(text.size()));
    if (traits.flushAfterWrite) {
        sink->pubsync();
    }
}

using foundation::core::sync::LockGuard;
using foundation::core::sync::Mutex;

// The distributors of the live interpreters, by interpreter. Any thread.
struct Registry {
    Mutex mutex;
    std::unordered_map<kvutil::contextmgr::KcrID, std::weak_ptr<CmdDistributor>>
        distributors QZ_GUARDED_BY(mutex);
};

Registry& registry() {
    static Registry instance;
    return instance;
}

} // namespace

AlreadyCancelledException::AlreadyCancelledException()
    : std::runtime_error("The interpreter's command distributor has shut down; the request "
                         "was not run.") {}

RunOptions::RunOptions(Sink output, Sink error, SinkTraits outputTraits, SinkTraits errorTraits)
    : output_(std::move(output)), error_(std::move(error)), outputTraits_(outputTraits),
      errorTraits_(errorTraits), queueName_(defaultQueue()) {}

RunOptions::RunOptions(WhenToDequeue mode, std::u16string queueName)
    : mode_(mode), queueName_(shareQueueName(std::move(queueName))) {}

RunOptions::RunOptions(WhenToDequeue mode, QueueName queueName)
    : mode_(mode),
      queueName_(queueName && !queueName->empty() ? std::move(queueName) : defaultQueue()) {}

void RunOptions::setQueueName(std::u16string name) {
    queueName_ = shareQueueName(std::move(name));
}

IIP::~IIP() = default;

PackagedTaskIIP::PackagedTaskIIP(std::function<boost::any()> func) : func_(std::move(func)) {
    if (!func_) {
        throw std::invalid_argument("func cannot be empty.");
    }
}

IIPResult PackagedTaskIIP::execute() {
    IIPResult result;
    try {
        result.value = func_();
    } catch (...) {
        result.executionStatus = Failed;
        result.error = std::current_exception();
        result.message = foundation::core::except::describe(result.error);
    }
    return result;
}

CmdRequest::CmdRequest(IqmStreamID /*stream*/, Sink output, Sink error, const char* /*sourceLabel*/)
    : output_(std::move(output)), error_(std::move(error)) {}

CmdRequest::~CmdRequest() = default;

PromiseDelegate::~PromiseDelegate() = default;

namespace detail {

std::exception_ptr errorOf(const IIPResult& result) {
    if (result.executionStatus == Failed || result.executionStatus == Cancelled ||
        result.executionStatus == NoDistributor) {
        return std::make_exception_ptr(
            RuntimeException(result.executionStatus, result.message, result.error));
    }
    return std::make_exception_ptr(AlreadyCancelledException());
}

void requireResult(const IIPResult* result) {
    if (result == nullptr) {
        foundation::core::diag::terminate("Assertion failed: result",
                                          "cmddistributor/PromiseDelegate", __LINE__,
                                          __PRETTY_FUNCTION__);
    }
}

} // namespace detail

namespace {

enum class Stage { Held, Queued, Running, Done };

// The status of a request that reached a distributor after it shut down.
constexpr int kRejected = -1;

} // namespace

struct CmdDistributor::Impl {
    // A request and its state. While live (registered, not yet Done) an
    // entry is linked into the live list and owns itself through `self`:
    // retiring it unlinks it and hands that reference back.
    struct Entry : boost::intrusive::list_base_hook<> {
        boost::shared_ptr<CmdRequest> request;
        boost::shared_ptr<PromiseDelegate> delegate;
        RunOptions options;
        IDType id;
        // Guarded by the distributor's mutex once the entry is registered.
        Stage stage;
        std::vector<std::function<void()>> continuations;
        std::shared_ptr<Entry> self; // while live
    };
    using EntryPtr = std::shared_ptr<Entry>;
    using LiveList = boost::intrusive::list<Entry, boost::intrusive::constant_time_size<false>>;

    Impl(kvutil::contextmgr::KcrID id, std::shared_ptr<iqm::Iqm> manager)
        : kcrID(id), queueManager(std::move(manager)) {}

    const kvutil::contextmgr::KcrID kcrID;
    const std::shared_ptr<iqm::Iqm> queueManager;
    Mutex mutex;
    bool shutDown QZ_GUARDED_BY(mutex) = false;
    LiveList live QZ_GUARDED_BY(mutex);                           // every request not yet Done
    std::unordered_map<IDType, Entry*> byID QZ_GUARDED_BY(mutex); // those with an ID

    // Marks `entry` Done and forgets it. Called with the mutex held, by a
    // caller that holds its own EntryPtr: the entry must not be destroyed
    // here, since destroying its work may submit releases to this distributor.
    std::vector<std::function<void()>> retire(Entry& entry) QZ_REQUIRES(mutex) {
        entry.stage = Stage::Done;
        if (entry.id != IDType{}) {
            byID.erase(entry.id);
        }
        std::vector<std::function<void()>> continuations = std::move(entry.continuations);
        unlink(entry);
        return continuations;
    }

    // Takes `entry` off the live list; the caller holds its own EntryPtr.
    // Called with the mutex held.
    void unlink(Entry& entry) QZ_REQUIRES(mutex) {
        live.erase(live.iterator_to(entry));
        entry.self.reset();
    }

    // Hands `result` to the delegate, then runs the continuations. Without
    // the mutex. Never throws.
    static void complete(const EntryPtr& entry, const IIPResult& result,
                         std::vector<std::function<void()>> continuations) noexcept {
        try {
            entry->delegate->deliver(&result);
        } catch (...) {
            // A delegate's own failure reaches nobody.
        }
        for (auto& continuation : continuations) {
            try {
                continuation();
            } catch (...) {
            }
        }
    }

    static IIPResult cancelledResult() {
        IIPResult result;
        result.executionStatus = Cancelled;
        result.message = "The request was cancelled.";
        return result;
    }

    // Called with the mutex held.
    Entry* find(IDType id) QZ_REQUIRES(mutex) {
        const auto it = byID.find(id);
        return it == byID.end() ? nullptr : it->second;
    }

    // Queues `entry` in the interpreter's queue. Any thread.
    void enqueue(const EntryPtr& entry, const std::weak_ptr<CmdDistributor>& self) {
        queueManager->postDetached(entry->options.getQueueName(), [self, entry] {
            if (const auto distributor = self.lock()) {
                distributor->impl_->run(entry);
            }
        });
    }

    // Runs a Queued request's work and completes it. Interpreter thread.
    void run(const EntryPtr& entry) QZ_EXCLUDES(mutex) {
        {
            LockGuard lock(mutex);
            if (entry->stage != Stage::Queued) {
                return; // cancelled while it waited in the queue
            }
            entry->stage = Stage::Running;
        }
        std::u16string printed;
        IIPResult result;
        {
            std::optional<kvm::DiarySink> capture;
            if (entry->request->getOutputSink()) {
                capture.emplace(printed);
            }
            result = entry->request->getIIP()->execute();
        }
        write(entry->request->getOutputSink(), entry->options.getOutputTraits(), printed);
        if (result.executionStatus == Failed) {
            write(entry->request->getErrorSink(), entry->options.getErrorTraits(),
                  foundation::core::str::toUtf16(result.message + "\n"));
        }
        std::vector<std::function<void()>> continuations;
        {
            LockGuard lock(mutex);
            continuations = retire(*entry);
        }
        complete(entry, result, std::move(continuations));
    }
};

std::shared_ptr<CmdDistributor> CmdDistributor::create(kvutil::contextmgr::KcrID id,
                                                       std::shared_ptr<iqm::Iqm> queueManager) {
    if (!queueManager) {
        throw std::invalid_argument("A command distributor needs a queue manager.");
    }
    std::shared_ptr<CmdDistributor> distributor(new CmdDistributor(id, std::move(queueManager)));
    Registry& known = registry();
    LockGuard lock(known.mutex);
    known.distributors[id] = distributor;
    return distributor;
}

std::shared_ptr<CmdDistributor> CmdDistributor::instance(kvutil::contextmgr::KcrID id) {
    Registry& known = registry();
    LockGuard lock(known.mutex);
    const auto it = known.distributors.find(id);
    return it == known.distributors.end() ? nullptr : it->second.lock();
}

CmdDistributor::CmdDistributor(kvutil::contextmgr::KcrID id, std::shared_ptr<iqm::Iqm> queueManager)
    : impl_(std::make_unique<Impl>(id, std::move(queueManager))) {}

CmdDistributor::~CmdDistributor() {
    shutdown();
}

void CmdDistributor::submit(boost::shared_ptr<CmdRequest> request,
                            boost::shared_ptr<PromiseDelegate> delegate, RunOptions options,
                            IDType id) {
    if (!request) {
        throw std::invalid_argument("request cannot be null.");
    }
    if (request->getIIP() == nullptr) {
        throw std::invalid_argument("request must contain an IIP.");
    }
    if (!delegate) {
        throw std::invalid_argument("delegate cannot be null.");
    }
    const bool ready = options.isReadyToExecute();
    auto entry = std::make_shared<Impl::Entry>(Impl::Entry{{},
                                                           std::move(request),
                                                           std::move(delegate),
                                                           std::move(options),
                                                           id,
                                                           ready ? Stage::Queued : Stage::Held,
                                                           {},
                                                           nullptr}); // linked when registered
    bool rejected = false;
    {
        LockGuard lock(impl_->mutex);
        rejected = impl_->shutDown;
        if (!rejected) {
            if ((id == IDType{} && !ready) || (id != IDType{} && impl_->byID.count(id) != 0)) {
                throw std::invalid_argument("request ID is missing or in use.");
            }
            entry->self = entry;
            impl_->live.push_back(*entry);
            if (id != IDType{}) {
                impl_->byID.emplace(id, entry.get());
            }
        }
    }
    if (rejected) {
        IIPResult result;
        result.executionStatus = kRejected;
        Impl::complete(entry, result, {});
        return;
    }
    // Not entry->stage: once the mutex is released another thread may change it.
    if (ready) {
        impl_->enqueue(entry, weak_from_this());
    }
}

void CmdDistributor::setReadyToExecute(IDType id) {
    Impl::EntryPtr entry;
    {
        LockGuard lock(impl_->mutex);
        Impl::Entry* held = impl_->find(id);
        if (held == nullptr || held->stage != Stage::Held) {
            return;
        }
        held->stage = Stage::Queued;
        entry = held->self;
    }
    impl_->enqueue(entry, weak_from_this());
}

CancelStatus CmdDistributor::cancel(IDType id) {
    Impl::EntryPtr entry;
    std::vector<std::function<void()>> continuations;
    {
        LockGuard lock(impl_->mutex);
        Impl::Entry* found = impl_->find(id);
        if (found == nullptr) {
            return CancelStatus::Done;
        }
        if (found->stage == Stage::Running) {
            return CancelStatus::Running;
        }
        entry = found->self;
        continuations = impl_->retire(*found);
    }
    Impl::complete(entry, Impl::cancelledResult(), std::move(continuations));
    return CancelStatus::Cancelled;
}

void CmdDistributor::addContinuation(IDType id, std::function<void()> continuation) {
    {
        LockGuard lock(impl_->mutex);
        if (Impl::Entry* entry = impl_->find(id)) {
            entry->continuations.push_back(std::move(continuation));
            return;
        }
    }
    continuation();
}

void CmdDistributor::shutdown() {
    {
        Registry& known = registry();
        LockGuard lock(known.mutex);
        const auto it = known.distributors.find(impl_->kcrID);
        if (it != known.distributors.end() &&
            (it->second.expired() || it->second.lock().get() == this)) {
            known.distributors.erase(it);
        }
    }
    std::vector<std::pair<Impl::EntryPtr, std::vector<std::function<void()>>>> cancelled;
    std::vector<Impl::EntryPtr> running; // dropped here, without the mutex
    {
        LockGuard lock(impl_->mutex);
        impl_->shutDown = true;
        while (!impl_->live.empty()) {
            Impl::EntryPtr entry = impl_->live.front().self;
            if (entry->stage == Stage::Running) {
                // Completes on the interpreter thread when its work returns.
                impl_->unlink(*entry);
                running.push_back(std::move(entry));
                continue;
            }
            auto continuations = impl_->retire(*entry);
            cancelled.emplace_back(std::move(entry), std::move(continuations));
        }
    }
    for (auto& [entry, continuations] : cancelled) {
        Impl::complete(entry, Impl::cancelledResult(), std::move(continuations));
    }
}

} // namespace cmddistributor
