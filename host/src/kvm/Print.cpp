// The language's output: the diary of the work running on this thread, or
// standard output.

#include <kvm/KVM.hpp>

#include <foundation/core/str/Utf.hpp>

#include <cstdio>
#include <string>

namespace kvm {

namespace {
thread_local std::u16string* currentDiary = nullptr;
} // namespace

void print(std::u16string_view text) {
    if (currentDiary) {
        currentDiary->append(text);
        return;
    }
    const std::string utf8 = foundation::core::str::toUtf8(text);
    std::fwrite(utf8.data(), 1, utf8.size(), stdout);
    std::fflush(stdout);
}

DiarySink::DiarySink(std::u16string& diary) noexcept : previous_(currentDiary) {
    currentDiary = &diary;
}

DiarySink::~DiarySink() {
    currentDiary = previous_;
}

} // namespace kvm
