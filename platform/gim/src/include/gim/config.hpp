#pragma once

// Holds the configuration document that a host hands to the library.

#include <oru/configng/pliConfigDocument.hpp>

#include <optional>
#include <string>

namespace gim {

class Config {
public:
    // Holds no document until one is loaded or parsed.
    Config() = default;
    explicit Config(oru::configng::PliConfigDocument document) : m_document{std::move(document)} {}

    // Finds the file by Helper::FindFile and reads it. PliConfigDocumentError if it isn't there or not
    // usable; the document held before then stays.
    void LoadFile(const std::string& name);
    // `name` stands for the file in messages.
    void ParseText(const std::string& text, const std::string& name);

    const std::optional<oru::configng::PliConfigDocument>& GetDocument() const noexcept { return m_document; }

    // The full path of the file that the document comes from, empty if it comes from none.
    const std::string& GetPath() const noexcept { return m_path; }

private:
    std::optional<oru::configng::PliConfigDocument> m_document;
    std::string m_path;
};

}  // namespace gim
