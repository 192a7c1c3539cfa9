#include "configCheck.hpp"

#include "controlSocket.hpp"
#include "hostSettings.hpp"
#include "machine.hpp"

#include <fmt/format.h>
#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>
#include <unistd.h>
#include <lumolib/libMain.hpp>
#include <nodepin/nodepin.hpp>

#include <filesystem>

namespace vosk::host {

using oru::configng::Attempt;
using oru::configng::PliConfigFinding;
using oru::configng::PliConfigInstanceNode;
using oru::configng::PliConfigKey;
using oru::configng::PliConfigReview;

namespace {

// Hands each WARN of the log to the review, while it lives. What is logged at ERROR is thrown, too.
class LoggedWarnings {
public:
    explicit LoggedWarnings(PliConfigReview& review) : m_sink{new Sink{review}} {
        m_root.addAppender(log4cplus::SharedAppenderPtr{m_sink.get()});
    }
    ~LoggedWarnings() { m_root.removeAppender(log4cplus::SharedAppenderPtr{m_sink.get()}); }
    LoggedWarnings(const LoggedWarnings&) = delete;
    LoggedWarnings& operator=(const LoggedWarnings&) = delete;

private:
    class Sink : public log4cplus::Appender {
    public:
        explicit Sink(PliConfigReview& review) : m_review{review} {}
        ~Sink() override { destructorImpl(); }
        void close() override { closed = true; }

    private:
        void append(const log4cplus::spi::InternalLoggingEvent& event) override {
            if (event.getLogLevel() == log4cplus::WARN_LOG_LEVEL) m_review.AddWarning(event.getMessage());
        }

        PliConfigReview& m_review;
    };

    log4cplus::Logger m_root = log4cplus::Logger::getRoot();
    log4cplus::helpers::SharedObjectPtr<Sink> m_sink;  // log4cplus counts its references
};

// Names in shared memory that no other process has; at the end nothing stands under them, a semaphore, which
// the C library names "sem.", included.
class OwnShm {
public:
    ~OwnShm() {
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator{"/dev/shm", ignored}) {
            const std::string name = entry.path().filename();
            if (name.starts_with(m_name) || name.starts_with("sem." + m_name))
                std::filesystem::remove(entry.path(), ignored);
        }
    }

    std::string Prefix() const { return "/" + m_name; }

private:
    const std::string m_name = fmt::format("vosk_check_{}_", ::getpid());
};

void CheckHost(const PliConfigInstanceNode& top) {
    const HostSettings settings = ReadHostSettings(top);
    nodepin::default_priority = settings.priority;
    if (settings.control_socket)
        Attempt(top["host"]["control_socket"], [&] { VetSocketPath(*settings.control_socket); });
    if (settings.log_file) Attempt(top["host"]["log_file"], [&] { VetLogFile(*settings.log_file); });
}

void CheckThreads(const gim::Config& config, PliConfigReview& review) {
    const OwnShm shm;
    lumo::LibMain library{shm.Prefix()};
    const LoggedWarnings warnings{review};
    library.SetupThreads(config);
    WarnIfNoCpuToSpare(StatesOf(library.GetThreads()));
}

// A stage of a resampler is read by the threads that use it; there may be none.
bool IsStage(const PliConfigKey& key) {
    return key.path.starts_with("cfg.resamplers[") && key.path.ends_with(']');
}

}  // namespace

std::vector<PliConfigFinding> CheckConfig(const gim::Config& config) {
    const auto& document = *config.GetDocument();
    const PliConfigInstanceNode& top = document.Instances();
    PliConfigReview review;
    if (top.Has("host")) Attempt(top["host"], [&] { CheckHost(top); });
    Attempt(top, [&] { CheckThreads(config, review); });
    auto findings = review.Findings();
    for (const PliConfigKey& key : UnreadKeys(document)) {
        if (!IsStage(key))
            findings.push_back(
                {fmt::format("{}:{}", key.file, key.line), key.path, "nothing reads this key"});
    }
    return findings;
}

std::string ToText(const PliConfigFinding& finding) {
    return fmt::format("{}: {}: {}{}", finding.where, finding.path, finding.is_warning ? "warning: " : "",
                       finding.text);
}

}  // namespace vosk::host
