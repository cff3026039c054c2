// Warnings of the language: printed, and remembered per interpreter thread.

#include <kvm/KVM.hpp>

namespace kvm {

namespace {
thread_local Warning lastGiven;
} // namespace

void warning(std::string_view id, std::u16string_view message) {
    std::u16string line = u"Warning: ";
    line.append(message);
    line += u'\n';
    print(line);
    lastGiven = Warning{std::string(id), std::u16string(message)};
}

Warning lastWarning() {
    return lastGiven;
}

void clearLastWarning() {
    lastGiven = Warning{};
}

} // namespace kvm
