#pragma once

// A configuration document, read from YAML once and never changed. A host makes it, before LibMain reads it.

#include <oru/configng/pliConfig.hpp>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace oru::configng {

// Refused with PliConfigDocumentError, which says where: text that is no YAML or no UTF-8, no or more than
// one document, a top that is no map, a key twice in a map or one that is no text, a merge key, an unknown
// tag, an alias that names a key or the node it stands in, and documents beyond these limits.
inline constexpr std::size_t MAX_DOCUMENT_BYTES = 4UL << 20U;
inline constexpr std::size_t MAX_DOCUMENT_NODES = 250'000;  // with each alias counted as what it stands for
inline constexpr std::size_t MAX_DOCUMENT_DEPTH = 64;

// A key or an element of a document.
struct PliConfigKey {
    std::string path;
    std::string file;
    int line;
};

class PliConfigDocument {
public:
    // A regular file: a pipe could keep the host waiting for ever.
    static PliConfigDocument FromFile(const std::string& path);
    // `name` stands for the file in messages.
    static PliConfigDocument FromText(const std::string& text, const std::string& name);

    // The top of the document: a map of the instance nodes, such as `cfg`.
    const PliConfigInstanceNode& Instances() const noexcept { return m_instances; }

private:
    friend std::vector<PliConfigKey> UnreadKeys(const PliConfigDocument& document);

    explicit PliConfigDocument(std::shared_ptr<const detail::NodeContent> top);

    std::shared_ptr<const detail::NodeContent> m_top;
    PliConfigInstanceNode m_instances;
};

// The keys and elements that nobody has asked for though their parent was read. After set-up these are the
// misspelt and the superfluous. What stands below an unread key is not listed.
std::vector<PliConfigKey> UnreadKeys(const PliConfigDocument& document);

}  // namespace oru::configng
