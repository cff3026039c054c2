// The built-in "vertcat": stacks 2-D arrays of equal width on top of each
// other. Data are column-major: element (r, c) of part k lands in row
// offset_k + r of the result, offset_k being the number of rows of the parts
// before it.

#include <interpreter/Errors.hpp>
#include <interpreter/Kdispatcher.hpp>

#include <Veldspire/KException/KExceptionEnvelope.hpp>
#include <foundation/core/except/Exception.hpp>

// Char matrices have no public constructor (matrix::create makes rows only),
// so the result's storage is made directly.

#include <algorithm>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

namespace interpreter {

namespace {

using ArrayRef = boost::intrusive_ptr<dvArray>;
using Parts = std::vector<const dvArray*>;
using matrix::ClassID;

template <class Tag>
[[noreturn]] void raise() {
    throw Veldspire::KException::KExceptionEnvelope(foundation::core::except::Exception<Tag>(),
                                                    matrix::dvCreateStackStruct(0));
}

struct Layout {
    std::size_t rows = 0;
    std::size_t columns = 0;
};

bool isZeroByZero(const dvArray* array) {
    const auto& dims = dvGetDimensions(array);
    return dims.size() == 2 && dims[0] == 0 && dims[1] == 0;
}

// The inputs that take part: all but the 0-by-0 ones. A null input cannot be
// given a class, so it is a class mismatch.
Parts partsOf(const std::vector<ArrayRef>& inputs) {
    Parts parts;
    for (const auto& input : inputs) {
        if (!input) {
            raise<KORVEX::catenate::classMismatch>();
        }
        if (!isZeroByZero(input.get())) {
            parts.push_back(input.get());
        }
    }
    return parts;
}

// Numbers take logical values in; text and cells combine only with their own kind.
ClassID resultClassOf(const Parts& parts) {
    bool numbers = false, logicals = false, chars = false, cells = false;
    for (const dvArray* part : parts) {
        switch (dvGetClassID(part)) {
        case ClassID::Double:
            numbers = true;
            break;
        case ClassID::Logical:
            logicals = true;
            break;
        case ClassID::Char:
            chars = true;
            break;
        case ClassID::Cell:
            cells = true;
            break;
        default:
            raise<KORVEX::catenate::classMismatch>();
        }
    }
    if (int{numbers || logicals} + int{chars} + int{cells} > 1) {
        raise<KORVEX::catenate::classMismatch>();
    }
    if (chars) {
        return ClassID::Char;
    }
    if (cells) {
        return ClassID::Cell;
    }
    return numbers ? ClassID::Double : ClassID::Logical;
}

Layout layoutOf(const Parts& parts) {
    Layout layout{0, dvGetDimensions(parts.front())[1]};
    for (const dvArray* part : parts) {
        const auto& dims = dvGetDimensions(part);
        if (dims.size() != 2 || dims[1] != layout.columns) {
            raise<KORVEX::catenate::dimensionMismatch>();
        }
        if (__builtin_add_overflow(layout.rows, dims[0], &layout.rows)) {
            throw std::length_error("Array dimensions are too large.");
        }
    }
    return layout;
}

// Calls copy(part, from, to, count) once per column of every part: `count`
// elements from index `from` of the part go to index `to` of the result.
template <class CopyColumn>
void forEachColumn(const Parts& parts, const Layout& layout, CopyColumn copy) {
    std::size_t offset = 0;
    for (const dvArray* part : parts) {
        const std::size_t rows = dvGetDimensions(part)[0];
        for (std::size_t column = 0; column < layout.columns; ++column) {
            copy(part, column * rows, offset + column * layout.rows, rows);
        }
        offset += rows;
    }
}

template <class Out, class In>
void copyElements(std::span<const In> in, std::size_t from, Out* out, std::size_t count) {
    std::transform(in.begin() + from, in.begin() + from + count, out,
                   [](In value) { return static_cast<Out>(value); });
}

matrix::unique_dvArray stackDoubles(const Parts& parts, const Layout& layout) {
    auto result = matrix::detail::do_create_numeric({layout.rows, layout.columns}, ClassID::Double);
    double* out = dvGetMutableDoubles(result.get()).data();
    forEachColumn(parts, layout, [&](const dvArray* part, auto from, auto to, auto count) {
        if (dvGetClassID(part) == ClassID::Double) {
            copyElements(dvGetDoubles(part), from, out + to, count);
        } else {
            copyElements(dvGetLogicals(part), from, out + to, count);
        }
    });
    return result;
}

matrix::unique_dvArray stackLogicals(const Parts& parts, const Layout& layout) {
    auto result =
        matrix::detail::do_create_numeric({layout.rows, layout.columns}, ClassID::Logical);
    std::uint8_t* out = dvGetMutableLogicals(result.get()).data();
    forEachColumn(parts, layout, [&](const dvArray* part, auto from, auto to, auto count) {
        copyElements(dvGetLogicals(part), from, out + to, count);
    });
    return result;
}

matrix::unique_dvArray stackChars(const Parts& parts, const Layout& layout) {
    const matrix::Dimensions dims{layout.rows, layout.columns};
    std::u16string text(layout.rows * layout.columns, u'\0');
    forEachColumn(parts, layout, [&](const dvArray* part, auto from, auto to, auto count) {
        dvGetChars(part).copy(text.data() + to, count, from);
    });
    return matrix::createChars(dims, std::move(text));
}

// The elements are shared copies of the parts' elements; empty ones stay empty.
matrix::unique_dvArray stackCells(const Parts& parts, const Layout& layout) {
    auto result = matrix::detail::do_create_cell({layout.rows, layout.columns});
    forEachColumn(parts, layout, [&](const dvArray* part, auto from, auto to, auto count) {
        for (std::size_t i = 0; i < count; ++i) {
            if (const dvArray* element = dvGetCell(part, from + i)) {
                dvSetCell(result.get(), to + i, matrix::detail::do_shared_copy(element));
            }
        }
    });
    return result;
}

matrix::unique_dvArray stack(const Parts& parts) {
    if (parts.empty()) {
        return matrix::detail::do_create_numeric({0, 0}, ClassID::Double);
    }
    const ClassID resultClass = resultClassOf(parts);
    const Layout layout = layoutOf(parts);
    switch (resultClass) {
    case ClassID::Char:
        return stackChars(parts, layout);
    case ClassID::Cell:
        return stackCells(parts, layout);
    case ClassID::Logical:
        return stackLogicals(parts, layout);
    default:
        return stackDoubles(parts, layout);
    }
}

} // namespace

// Always gives one array, whatever the number of outputs asked for.
std::vector<boost::intrusive_ptr<dvArray>> vertcat(std::size_t /*numOutputs*/,
                                                   const std::vector<ArrayRef>& inputs) {
    return {ArrayRef(matrix::to_korvex(stack(partsOf(inputs))), false)};
}

} // namespace interpreter
