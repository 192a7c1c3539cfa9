#pragma once

// What goes wrong with a configuration: all exceptions of the library, with the place in the document where
// it went wrong. The texts name nodes by their path, such as "cfg.m4.output[0]"; Where() adds file and line.

#include <memory>
#include <stdexcept>
#include <string>

namespace oru::configng {

class PliConfigError : public std::runtime_error {
public:
    explicit PliConfigError(const std::string& text, const std::string& where = {})
        : std::runtime_error{text}, m_where{std::make_shared<const std::string>(where)} {}

    // "vosk.yaml:12", or empty where no document stands behind the error.
    const std::string& Where() const noexcept { return *m_where; }

private:
    std::shared_ptr<const std::string> m_where;  // shared: copying an exception must not throw
};

// A document that can't be read: no file, no YAML, or YAML that means nothing here. The text starts with the
// place, as compilers write it: "vosk.yaml:12:3: ...".
class PliConfigDocumentError : public PliConfigError {
    using PliConfigError::PliConfigError;
};

// An operation on a node of the wrong kind.
class PliConfigTypeError : public PliConfigError {
    using PliConfigError::PliConfigError;
};

// A member or element that is absent.
class PliConfigNotFoundError : public PliConfigError {
    using PliConfigError::PliConfigError;
};

// A failed conversion by As<T>().
class PliConfigValueError : public PliConfigError {
    using PliConfigError::PliConfigError;
};

// Misuse of an iteration.
class PliConfigIterationError : public PliConfigError {
    using PliConfigError::PliConfigError;
};

}  // namespace oru::configng
