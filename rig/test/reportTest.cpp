#include "host/hostProcess.hpp"
#include "report/htmlReport.hpp"
#include "report/svgPlot.hpp"

#include <vosk/test/support.hpp>
#include <vosk/test/tempDir.hpp>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;
using namespace testing;

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

TEST(HtmlReport, SaysMoreAtTheLastBarOfTheHistogram) {
    const std::vector<CommandRecord> commands(1);
    std::vector<SetpointRecord> setpoints(200);
    setpoints.back().arrived = time_point{5ms};
    std::vector<CheckedSetpoint> checked(200);
    for (std::size_t i = 0; i < checked.size(); ++i) {
        checked[i].setpoint = i;
        checked[i].command = 0;
    }
    RunFacts facts;
    facts.commands = commands;
    facts.setpoints = setpoints;
    facts.checked = checked;
    EXPECT_THAT(MakeHtmlReport({}, {}, facts, MakeAccounts({}, facts), ""), HasSubstr("more, up to 5000 us"));
}

TEST(Figures, CountInjectedFaultsByStreamAndKind) {
    const Scenario scenario = ParseScenario(R"({name: x, faults: [{stream: wavefront_command, kind: drop},
        {stream: setpoint_applied, kind: wrong_sample_id}, {stream: feedback, kind: corrupt}]})",
                                            "test");
    std::vector<CommandRecord> commands(3);
    commands[1].fault = FaultKind::Drop;
    RunFacts facts;
    facts.commands = commands;
    facts.status.streams["AO_WAVEFRONT_CMD_INPUT"] = {2, 1, 0, 5};
    FeedbackCounts feedback;
    for (int i = 0; i < 4; ++i) feedback.faults.Add(FaultKind::Corrupt);
    const auto faults = MakeFigures(scenario, facts, MakeAccounts(scenario, facts), feedback).faults;
    const auto injected = [](std::uint64_t count) { return Field(&FaultFigures::injected, count); };
    EXPECT_THAT(faults, ElementsAre(injected(1), injected(0), injected(4)));
    EXPECT_EQ(faults[0].reported, "host: 1 invalid, 0 lost, 5 packets dropped by the kernel");
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

TEST(HostStatus, IsReadFromTheHostsJson) {
    const std::string counts =
        R"({"late_setpoints":1,"missing_answers":2,"foreign_answers":3,"kept_back_setpoints":4,)"
        R"("overwritten_commands":5,"unfit_source_cycles":6,"failed_mode_changes":0,"clock_steps":7,"grid_points_skipped":8})";
    const HostStatus status = ParseHostStatus(
        R"({"mode":"TEL_DRIVEN","source":"CCS/TEL","handover_state":0,"log_dropped":2,"counts":)" + counts +
        R"(,"threads":[{"priority":0,"priority_given":0},{"priority":9,"priority_given":0}])"
        R"(,"streams":[{"name":"M4_OUTPUT","samples":7,"invalid":0,"lost":3,"dropped_packets":4}],)"
        R"("events":[{"time_ns":5,"text":"say \"hi\" \u00b5"}]})");
    EXPECT_EQ(status.source, "CCS/TEL");
    EXPECT_EQ(status.streams.at("M4_OUTPUT").lost, 3U);
    EXPECT_TRUE(status.priority_refused);
    EXPECT_EQ(status.counts.grid_points_skipped, 8U);
    ASSERT_EQ(status.events.size(), 1U);
    EXPECT_EQ(status.events[0].time.time_since_epoch().count(), 5);
    EXPECT_EQ(status.events[0].text, "say \"hi\" \u00b5");
    EXPECT_THROW(ParseHostStatus("ok"), std::runtime_error);
    EXPECT_THROW(ParseHostStatus("{\"mode\": "), std::runtime_error);
}

}  // namespace
}  // namespace vosk::rig
