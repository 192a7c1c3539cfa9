// Any bytes either make a document, all of which can then be walked and converted, or are refused.

#include <oru/configng/pliConfigDocument.hpp>

#include <cstdint>
#include <exception>

using namespace oru::configng;

namespace {

template <class T>
void Convert(const PliConfigInstanceNode& node) {
    try {
        static_cast<void>(node.As<T>());
    } catch (const PliConfigValueError&) {
        // Most values are not of most types.
    }
}

void Walk(const PliConfigInstanceNode& node) {
    Convert<bool>(node);
    Convert<int>(node);
    Convert<unsigned char>(node);
    Convert<unsigned long>(node);
    Convert<float>(node);
    Convert<double>(node);
    Convert<std::string>(node);
    Convert<oru::experimental::datatypes::PliMatrix2D<double>>(node);
    if (!node.IsSequence() && !node.IsMap()) return;
    for (const auto& child : node) Walk(child);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const auto document =
            PliConfigDocument::FromText(std::string{reinterpret_cast<const char*>(data), size}, "fuzz.yaml");
        Walk(document.Instances());
        if (!UnreadKeys(document).empty()) std::terminate();  // the walk has asked for everything
    } catch (const PliConfigDocumentError&) {
        // Refused, as most input.
    }
    return 0;
}
