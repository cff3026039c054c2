#pragma once

// The language's ways into the class-object system, as the interpreter calls
// them: construct objects, call methods, read and assign properties, list
// members, delete objects, save and load them. Interpreter thread only.
//
// Raw dvArray* inputs are borrowed; raw outputs and results carry one
// reference each (release with matrix::destroyArray, adopt with
// matrix::from_korvex). Errors are the typed exceptions of kcos/Errors.hpp,
// the host's argument-count errors, or whatever the called code raises.

#include <host/Export.hpp>
#include <kcos/COSValue.hpp>
#include <kcos/Interned.hpp>
#include <matrix/dvArray.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace kcos {

// The most outputs one call may ask for. Counts come from the language and
// size the buffers that receive the outputs, so every entry point that takes
// one (omCallMethod, omInvokeMethod, the executors' evaluations) refuses a
// larger count with the host's too-many-outputs error (maxlhs) before it
// allocates anything.
inline constexpr unsigned int kMaxNumOutputs = 1u << 16;

// One saved object: its class name and the value its class info saved.
struct SavedObject {
    std::string className;
    COSValue value;
};

// A saved object array: class name, dimensions and its elements in order
// (null elements save as an empty class name).
struct SavedArray {
    std::string className;
    matrix::Dimensions dims;
    std::vector<SavedObject> elements;
};

} // namespace kcos

// Constructs a 1-by-1 array holding a new object of `className` (a class name
// or an alias): the object gets its instance data (createInstanceData), then
// the class's constructor, if any, runs with `args` while the dispatcher
// reports `className`, exactly as written, as the executing function. The
// constructor's result is returned (it may replace the array). Without a
// constructor any argument is too many (maxrhs). An unknown class raises
// UndefinedClass.
QZHOST_API dvArray* omConstructObjectWithClient(kcos::InternedName className, int numArgs,
                                                dvArray* const* args,
                                                const kcos::COSClient* client);

// Calls method `methodName` of class `className`: a static call (`isStatic`)
// passes the inputs as they are; otherwise inputs[0] must be an object array
// whose class is `className` or derives from it (the method is found through
// that array's class). The inputs and outputs are checked against the
// method's signature and access (maxrhs, maxlhs, NoSuchMethod,
// MethodProhibited); more than kcos::kMaxNumOutputs outputs raise maxlhs. A
// class's constructor runs only through omConstructObjectWithClient: called
// here, with or without `isStatic`, it raises MethodProhibited. Fills
// outputs[0 .. numOutputs); an output the method did not produce raises
// maxlhs. Outputs of declared type "logical scalar" given
// as bare logical values become logical scalars.
QZHOST_API void omCallMethod(kcos::InternedName className, kcos::InternedName methodName,
                             const kcos::COSClient* client, int numOutputs, dvArray** outputs,
                             int numInputs, dvArray* const* inputs, bool isStatic);

// As omCallMethod, for callers that want what the method produced: calls the
// method of the class of `inputs[0]` (an object array) with `numOutputs`
// requested and returns every output it produced (at least one slot is
// offered when none is requested, as for the language's "ans"). Checks and
// errors as for omCallMethod.
QZHOST_API std::vector<matrix::unique_dvArray>
omInvokeMethod(std::string_view methodName, int numOutputs,
               const std::vector<const dvArray*>& inputs, const kcos::COSClient* client);

// Reads property `name` of the object of a 1-by-1 object array: the value
// the property gives (a null value reads as the 0-by-0 double array).
// Errors: ScalarObjectRequired, InvalidHandle (deleted object), NoSuchProperty,
// GetProhibited.
QZHOST_API matrix::unique_dvArray omGetProperty(const dvArray* object, std::string_view name,
                                                const kcos::COSClient* client);
// Assigns property `name` of the object of a 1-by-1 object array. Errors as
// for omGetProperty, and SetProhibited when the client may not assign it.
QZHOST_API void omSetProperty(dvArray* object, std::string_view name, const dvArray* value,
                              const kcos::COSClient* client);

// The names of the visible properties the client may read (declaration
// order, superclasses' after the class's own), and of the visible methods
// the client may call, of a class or alias. UndefinedClass when unknown.
QZHOST_API std::vector<std::string> omGetPropertyNames(kcos::InternedName className,
                                                       const kcos::COSClient* client);
QZHOST_API std::vector<std::string> omGetMethodNames(kcos::InternedName className,
                                                     const kcos::COSClient* client);

// Deletes every object of an object array (COSInterface::destroy).
QZHOST_API void omDeleteObjects(const dvArray* objects);

// Saves every object of an object array through its class info's customSave.
QZHOST_API kcos::SavedArray omSaveObjects(const dvArray* objects);
// Loads a saved array: each object is made with its instance data
// (createInstanceData, no constructor), restored through customLoad or, when
// that declines, from the saved property values, then instanceLoaded.
QZHOST_API matrix::unique_dvArray omLoadObjects(const kcos::SavedArray& saved);
