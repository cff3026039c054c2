// The stand-in dispatcher: one scope, "base", holding the built-ins and the
// functions defined at run time.

#include <interpreter/Kdispatcher.hpp>

#include <foundation/core/str/Utf.hpp>
#include <kcos/Errors.hpp>
#include <kvm/KVM.hpp>

#include <mutex>
#include <set>

#include <stdexcept>
#include <utility>

Kfunction_handle::Kfunction_handle(std::string name, matrix::FunctionBody body)
    : name_(std::move(name)), body_(std::move(body)) {
    if (!body_) {
        throw std::invalid_argument("Function '" + name_ + "' has no body.");
    }
}

std::vector<boost::intrusive_ptr<dvArray>>
Kfunction_handle::call(std::size_t numOutputs,
                       const std::vector<boost::intrusive_ptr<dvArray>>& inputs) const {
    return body_(numOutputs, inputs);
}

boost::intrusive_ptr<dvArray>
Kfunction_handle::operator()(const std::vector<boost::intrusive_ptr<dvArray>>& inputs) const {
    auto outputs = body_(1, inputs);
    if (outputs.empty()) {
        matrix::detail::error_maxlhs();
    }
    return std::move(outputs.front());
}

namespace {

// "parallel.internal.warnOnceCannotSave"(className): warns, once per class
// name and process, that objects of that class are not saved.
std::vector<boost::intrusive_ptr<dvArray>>
warnOnceCannotSave(std::size_t, const std::vector<boost::intrusive_ptr<dvArray>>& inputs) {
    if (inputs.size() > 1) {
        matrix::detail::error_maxrhs();
    }
    if (inputs.empty()) {
        matrix::detail::error_minrhs();
    }
    const dvArray* name = inputs[0].get();
    if (name == nullptr || dvGetClassID(name) != matrix::ClassID::Char) {
        throw std::invalid_argument("The class name must be a char array.");
    }
    const std::u16string className(dvGetChars(name));
    static std::mutex mutex;
    static std::set<std::u16string> warned;
    {
        const std::lock_guard lock(mutex);
        if (!warned.insert(className).second) {
            return {};
        }
    }
    kvm::print(u"Warning: Objects of class '" + className +
               u"' cannot be saved; they load as unavailable futures.\n");
    return {};
}

} // namespace

Kdispatcher::Kdispatcher() : scope_{"base"} {
    define("vertcat", interpreter::vertcat);
    define("parallel.internal.warnOnceCannotSave", warnOnceCannotSave);
}

Kdispatcher::ExecutingFunction::ExecutingFunction(Kdispatcher& dispatcher, std::string name)
    : dispatcher_(dispatcher), previous_(std::exchange(dispatcher.executing_, std::move(name))) {}

Kdispatcher::ExecutingFunction::~ExecutingFunction() {
    dispatcher_.executing_ = std::move(previous_);
}

void inCallFcn(const char* name, int numOutputs, dvArray** outputs, int numInputs,
               dvArray* const* inputs) {
    Kdispatcher& dispatcher = Kdispatcher::getDispatcher();
    const std::optional<Kfunction_handle> function =
        dispatcher.lookup(name, dispatcher.GetCurrentlyExecutingFunctionScope());
    if (!function) {
        throw foundation::core::except::Exception<KORVEX::UndefinedFunction>(
            foundation::core::str::toUtf16(name));
    }
    std::vector<boost::intrusive_ptr<dvArray>> arguments;
    for (int i = 0; i < numInputs; ++i) {
        arguments.emplace_back(inputs[i]);
    }
    const std::size_t wanted = static_cast<std::size_t>(std::max(numOutputs, 0));
    const Kdispatcher::ExecutingFunction executing(dispatcher, name);
    auto results = function->call(wanted, arguments);
    if (results.size() < wanted) {
        matrix::detail::error_maxlhs();
    }
    for (std::size_t i = 0; i < wanted; ++i) {
        outputs[i] = results[i].detach();
    }
}

Kdispatcher& Kdispatcher::getDispatcher() {
    const auto kvm = kvm::Factory::getCurrentLocalKVM();
    if (!kvm) {
        throw std::logic_error("The dispatcher is reached from an interpreter thread only.");
    }
    return kvm->getDispatcher();
}

const std::string& Kdispatcher::GetCurrentlyExecutingFunction() const noexcept {
    return executing_;
}

const KfunctionScope& Kdispatcher::GetCurrentlyExecutingFunctionScope() const noexcept {
    return scope_;
}

// Every scope sees the one scope of the stand-in.
std::optional<Kfunction_handle> Kdispatcher::lookup(std::string_view name,
                                                    const KfunctionScope&) const {
    const auto it = functions_.find(name);
    if (it == functions_.end()) {
        return std::nullopt;
    }
    return Kfunction_handle(it->first, it->second);
}

void Kdispatcher::define(std::string name, matrix::FunctionBody body) {
    if (!body) {
        throw std::invalid_argument("Function '" + name + "' has no body.");
    }
    functions_.insert_or_assign(std::move(name), std::move(body));
}
