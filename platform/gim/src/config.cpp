#include <gim/config.hpp>

#include <gim/helper.hpp>

#include <filesystem>

namespace gim {

using oru::configng::PliConfigDocument;

void Config::LoadFile(const std::string& name) {
    const std::string path = Helper::FindFile(name);
    // Without a hit the name itself goes on, so that the error is that of opening it.
    m_document = PliConfigDocument::FromFile(path.empty() ? name : path);
    m_path = std::filesystem::absolute(path);
}

void Config::ParseText(const std::string& text, const std::string& name) {
    m_document = PliConfigDocument::FromText(text, name);
    m_path.clear();
}

}  // namespace gim
