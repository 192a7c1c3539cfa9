#include <gim/config.hpp>

#include <gim/helper.hpp>

namespace gim {

using oru::configng::PliConfigDocument;

void Config::LoadFile(const std::string& name) {
    const std::string path = Helper::FindFile(name);
    // Without a hit the name itself goes on, so that the error is that of opening it.
    m_document = PliConfigDocument::FromFile(path.empty() ? name : path);
}

void Config::ParseText(const std::string& text, const std::string& name) {
    m_document = PliConfigDocument::FromText(text, name);
}

}  // namespace gim
