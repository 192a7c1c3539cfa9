#include "hostProcess.hpp"
#include "htmlReport.hpp"
#include "svgPlot.hpp"

#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

namespace vosk::rig {
namespace {

using namespace testing;

TEST(EscapeHtml, LeavesNothingThatHtmlWouldRead) {
    EXPECT_EQ(EscapeHtml("<b a=\"1\" c='2'>&</b>"), "&lt;b a=&quot;1&quot; c=&#39;2&#39;&gt;&amp;&lt;/b&gt;");
}

TEST(HtmlReport, EscapesForeignTextAndNeedsNoNetwork) {
    Scenario scenario;
    scenario.name = "<script>alert(1)</script>";
    RunFacts facts;
    facts.trouble = "the host said \"</body>\"";
    facts.host_exit = 0;
    const Accounts accounts = MakeAccounts(scenario, facts);
    const RunReport report =
        MakeReport(scenario, facts, accounts, MakeFigures(scenario, facts, accounts, {}));
    const std::string html = MakeHtmlReport(report, scenario, facts, accounts, "<machine>");
    EXPECT_THAT(html, Not(HasSubstr("<script>")));
    EXPECT_THAT(html, HasSubstr("&lt;script&gt;"));
    EXPECT_THAT(html, HasSubstr("&lt;machine&gt;"));
    EXPECT_THAT(html, HasSubstr("&quot;&lt;/body&gt;&quot;"));
    EXPECT_THAT(html, HasSubstr("does not hold"));
    EXPECT_THAT(html, Not(HasSubstr("http")));
}

TEST(DrawSvg, ManagesWithEmptyFlatAndInfiniteData) {
    const double infinity = std::numeric_limits<double>::infinity();
    for (const auto style : {PlotSeries::Style::Line, PlotSeries::Style::Dots, PlotSeries::Style::Bars}) {
        EXPECT_THAT(DrawSvg({"", "", "", true, {{"a", "a", style, {}, {}, {}}}, {}}), Not(HasSubstr("nan")));
        EXPECT_THAT(DrawSvg({"", "", "", false, {{"a", "a", style, {1, 1}, {2, 2}, {}}}, {{1, "x"}}}),
                    Not(HasSubstr("nan")));
    }
    const PlotSeries gap{"a", "a", PlotSeries::Style::Line, {0, 1, 2}, {1, infinity, 2}, {}};
    EXPECT_THAT(DrawSvg({"", "", "", false, {gap}, {}}), Not(HasSubstr("inf")));
}

TEST(WriteTextFile, ThrowsWhereNothingCanBeWritten) {
    EXPECT_THROW(WriteTextFile("/proc/no-such-file", "x"), std::runtime_error);
}

TEST(HostStatus, IsReadFromTheHostsJson) {
    const HostStatus status = ParseHostStatus(
        R"({"mode":"TEL_DRIVEN","camera":"IMG_GP1","source":"CCS/TEL","handover_state":0,)"
        R"("mode_change_in_progress":false,"streams":[{"name":"M4_OUTPUT","valid":true,"samples":7,"invalid":0,)"
        R"("period":null,"period_min":null,"period_max":null,"rate":null}],"log_dropped":2,)"
        R"("events":[{"time_ns":5,"text":"say \"hi\" \u00b5"}]})");
    EXPECT_EQ(status.source, "CCS/TEL");
    EXPECT_EQ(status.streams.at("M4_OUTPUT").samples, 7U);
    EXPECT_EQ(status.log_dropped, 2U);
    ASSERT_EQ(status.events.size(), 1U);
    EXPECT_EQ(status.events[0].time.time_since_epoch().count(), 5);
    EXPECT_EQ(status.events[0].text, "say \"hi\" \u00b5");
    EXPECT_THROW(ParseHostStatus("ok"), std::runtime_error);
    EXPECT_THROW(ParseHostStatus("{\"mode\": "), std::runtime_error);
}

TEST(HostComplaints, AreCountedByKind) {
    const test::TempDir directory;
    const HostComplaints complaints = ReadComplaints(directory.Put(
        "host.log",
        "ERROR M4Output::Work(): Got 'am:setpoint' message with a send time that has already passed, diff "
        "= +70 us, no data will be sent!\n"
        "ERROR AoTasks::ReceiveAndProcessAmSetpointApplied(): no 'am:setpoint_applied' response from M4 at "
        "12:00:00.000000, sample ID = 4\n"
        "ERROR AoTasks::ReceiveAndProcessAmSetpointApplied(): received 'am:setpoint_applied' response at "
        "12:00:00.000000 with different sample ID then M4 command sent: 4 vs 3\n"
        "INFO something else\n"));
    EXPECT_EQ(complaints.unsent_setpoints, 1U);
    EXPECT_EQ(complaints.missing_answers, 1U);
    EXPECT_EQ(complaints.foreign_answers, 1U);
    EXPECT_EQ(complaints.receive_errors, 0U);
    EXPECT_THAT(complaints.unanswered, ElementsAre(4U));
}

}  // namespace
}  // namespace vosk::rig
