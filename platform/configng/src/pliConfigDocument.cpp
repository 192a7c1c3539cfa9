#include <oru/configng/pliConfigDocument.hpp>

#include <yaml-cpp/exceptions.h>
#include <yaml-cpp/parser.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>
#include <system_error>

#include "nodeContent.hpp"
#include "textCheck.hpp"
#include "treeBuilder.hpp"

namespace oru::configng {

namespace {

[[noreturn]] void RefuseFile(const std::string& name, const std::string& text) {
    throw PliConfigDocumentError(name + ": " + text, name);
}

void CheckText(const std::string& name, const std::string& text) {
    if (text.size() > MAX_DOCUMENT_BYTES) {
        RefuseFile(name, "larger than " + std::to_string(MAX_DOCUMENT_BYTES) + " bytes");
    }
    if (const auto bad = detail::FindBadText(text)) {
        const auto line =
            std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(*bad), '\n') + 1;
        const std::string where = name + ":" + std::to_string(line);
        throw PliConfigDocumentError(
            where + ": byte " + std::to_string(*bad) + " of the document is no UTF-8 text", where);
    }
}

void AddUnread(const detail::NodeContent& node, std::vector<PliConfigKey>& unread) {
    for (const detail::NodeContent* child : node.children) {
        if (child->is_read.load(std::memory_order_relaxed)) {
            AddUnread(*child, unread);
        } else {
            unread.push_back({child->GetPath(), *child->file, child->line});
        }
    }
}

}  // namespace

PliConfigDocument::PliConfigDocument(std::shared_ptr<const detail::NodeContent> top)
    : m_top{std::move(top)}, m_instances{m_top} {}

PliConfigDocument PliConfigDocument::FromText(const std::string& text, const std::string& name) {
    CheckText(name, text);
    detail::TreeBuilder builder{name};
    try {
        std::istringstream stream{text};
        YAML::Parser parser{stream};
        while (parser.HandleNextDocument(builder)) continue;
    } catch (const YAML::Exception& error) {
        detail::ThrowDocumentError(name, error.mark, error.msg);
    }
    const auto tree = builder.Finish();
    return PliConfigDocument{{tree, &tree->nodes.front()}};
}

PliConfigDocument PliConfigDocument::FromFile(const std::string& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    // A directory would open, and read as an empty file; a pipe without a writer would not even open.
    if (exists(status) && !is_regular_file(status)) RefuseFile(path, "is no file");
    std::ifstream file{path, std::ios::binary};
    if (!file) RefuseFile(path, "can't be opened: " + std::generic_category().message(errno));
    std::string text;
    std::vector<char> block(1U << 16U);
    // Stops beyond the limit, where the text is refused.
    while (text.size() <= MAX_DOCUMENT_BYTES && file) {
        file.read(block.data(), static_cast<std::streamsize>(block.size()));
        text.append(block.data(), static_cast<std::size_t>(file.gcount()));
    }
    if (file.bad()) RefuseFile(path, "can't be read");
    return FromText(text, path);
}

std::vector<PliConfigKey> UnreadKeys(const PliConfigDocument& document) {
    std::vector<PliConfigKey> unread;
    AddUnread(*document.m_top, unread);
    return unread;
}

}  // namespace oru::configng
