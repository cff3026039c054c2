#pragma once

// The interpreter's dispatcher: language functions by name, per scope.
// Interpreter thread only.

#include <host/Export.hpp>
#include <matrix/dvArray.hpp>

#include <boost/intrusive_ptr.hpp>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A language function, callable for a number of outputs.
class QZHOST_API Kfunction_handle {
public:
    Kfunction_handle(std::string name, matrix::FunctionBody body);
    const std::string& name() const noexcept { return name_; }
    // Calls the function for one output. Errors of the function pass through;
    // a function that gives no output raises "KORVEX:maxlhs".
    boost::intrusive_ptr<dvArray>
    operator()(const std::vector<boost::intrusive_ptr<dvArray>>& inputs) const;
    // Calls the function for `numOutputs` outputs; it may give fewer.
    std::vector<boost::intrusive_ptr<dvArray>>
    call(std::size_t numOutputs, const std::vector<boost::intrusive_ptr<dvArray>>& inputs) const;

private:
    std::string name_;
    matrix::FunctionBody body_;
};

// The function the interpreter is executing, with the scope its names are
// looked up in. The stand-in has one scope: the built-ins.
struct KfunctionScope {
    std::string name;
};

class QZHOST_API Kdispatcher {
public:
    Kdispatcher();
    // The dispatcher of the calling thread's interpreter. Throws
    // std::logic_error on a thread that is not an interpreter thread.
    static Kdispatcher& getDispatcher();

    const std::string& GetCurrentlyExecutingFunction() const noexcept;
    const KfunctionScope& GetCurrentlyExecutingFunctionScope() const noexcept;

    // The function `name` seen from `scope`; empty when there is none.
    std::optional<Kfunction_handle> lookup(std::string_view name,
                                           const KfunctionScope& scope) const;

    // Adds or replaces a function of this interpreter.
    void define(std::string name, matrix::FunctionBody body);

    // While alive, the dispatcher reports `name` as the executing function.
    // Nests; destroy in reverse order of creation.
    class QZHOST_API ExecutingFunction {
    public:
        ExecutingFunction(Kdispatcher& dispatcher, std::string name);
        ~ExecutingFunction();
        ExecutingFunction(const ExecutingFunction&) = delete;
        ExecutingFunction& operator=(const ExecutingFunction&) = delete;

    private:
        Kdispatcher& dispatcher_;
        std::string previous_;
    };

private:
    KfunctionScope scope_;
    std::string executing_;
    std::map<std::string, matrix::FunctionBody, std::less<>> functions_;
};

// Calls the language function `name` of the calling thread's interpreter,
// as the executing function, for `numOutputs` outputs (owning raw pointers
// stored into outputs[0 .. numOutputs)); inputs are borrowed. An unknown name
// raises KORVEX:UndefinedFunction; fewer outputs than asked for, maxlhs; the
// function's own errors pass through. Interpreter thread only.
QZHOST_API void inCallFcn(const char* name, int numOutputs, dvArray** outputs, int numInputs,
                          dvArray* const* inputs);

namespace interpreter {
// The built-in "vertcat": vertical concatenation of double, logical, char and
// cell arrays. Empty (0-by-0) arrays are skipped; all others need equal
// column counts; numbers with logicals give numbers; chars only with chars;
// cells only with cells. Otherwise raises an error envelope
// "KORVEX:catenate:dimensionMismatch" or "KORVEX:catenate:classMismatch".
QZHOST_API std::vector<boost::intrusive_ptr<dvArray>>
vertcat(std::size_t numOutputs, const std::vector<boost::intrusive_ptr<dvArray>>& inputs);
} // namespace interpreter
