#include <oru/configng/pliConfigDocument.hpp>

#include <gtest/gtest.h>
#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <cmath>
#include <functional>
#include <iterator>
#include <limits>
#include <string>
#include <utility>
#include <vector>

using namespace oru::configng;
using Matrix = oru::experimental::datatypes::PliMatrix2D<double>;
using oru::configng::util::IsActualMatrix;
using Shape = std::optional<std::pair<unsigned long, unsigned long>>;

namespace {

PliConfigInstanceNode Read(const std::string& text) {
    return PliConfigDocument::FromText(text, "test.yaml").Instances();
}

PliConfigInstanceNode Value(const std::string& text) {
    return Read("v: " + text)["v"];
}

template <class Error>
std::string TextOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Error& error) {
        return error.what();
    } catch (const std::exception& error) {
        return std::string{"another exception: "} + error.what();
    }
    return "no exception";
}

template <class T>
std::string RefusalOf(const std::string& text) {
    return TextOf<PliConfigValueError>([&text] { static_cast<void>(Value(text).As<T>()); });
}

TEST(Node, KnowsItsPathAndPlace) {
    const auto top = Read("# head\ncfg:\n  m4:\n    output:\n      - cpu: 3\n        busy: true\n");
    const auto cpu = top["cfg"]["m4"]["output"][0]["busy"];
    EXPECT_EQ(cpu.GetPath(), "cfg.m4.output[0].busy");
    EXPECT_EQ(cpu.GetLine(), 6);
    EXPECT_EQ(cpu.GetFile(), "test.yaml");
    EXPECT_EQ(top["cfg"].GetLine(), 2);
    EXPECT_EQ(top.GetPath(), "test.yaml");

    const PliConfigInstanceNode nowhere;
    EXPECT_EQ(nowhere.GetKind(), PliConfigNodeKind::UNDEFINED);
    EXPECT_EQ(nowhere.GetWhere(), "");
}

TEST(Node, OutlivesItsDocument) {
    PliConfigInstanceNode kept;
    {
        const auto document = PliConfigDocument::FromText("cfg: {a: [1, {b: deep}]}", "gone.yaml");
        kept = document.Instances()["cfg"]["a"][1];
    }
    EXPECT_EQ(kept["b"].As<std::string>(), "deep");
    EXPECT_EQ(kept.GetPath(), "cfg.a[1]");
}

TEST(Node, StaysItselfWhenItIsMovedFrom) {
    auto node = Value("[1, 2]");
    const auto taken = std::move(node);
    EXPECT_EQ(node[0].As<int>(), 1);  // NOLINT(bugprone-use-after-move): what is tried here
    EXPECT_EQ(taken[1].As<int>(), 2);
}

template <class T>
concept TakesAsIndex = requires(const PliConfigInstanceNode& node, T index) {
    node[index];
};
static_assert(TakesAsIndex<int> && TakesAsIndex<std::size_t> && !TakesAsIndex<bool> && !TakesAsIndex<char>);

TEST(Node, TellsWhatItLacks) {
    const auto cfg = Read("cfg: {list: [1, 2], text: x, nothing: }")["cfg"];
    EXPECT_EQ(cfg.GetSize(), 3U);
    EXPECT_TRUE(cfg.Has("list"));
    EXPECT_FALSE(cfg.Has("List"));
    EXPECT_EQ(cfg["nothing"].GetKind(), PliConfigNodeKind::UNDEFINED);

    EXPECT_EQ(TextOf<PliConfigNotFoundError>([&] { cfg["busy"]; }), "Member busy not defined in node cfg");
    EXPECT_EQ(TextOf<PliConfigNotFoundError>([&] { cfg["list"][2]; }),
              "Element with index 2 not defined in node cfg.list");
    EXPECT_EQ(TextOf<PliConfigNotFoundError>([&] { cfg["list"][-1]; }),
              "Element with index -1 not defined in node cfg.list");
    EXPECT_EQ(TextOf<PliConfigTypeError>([&] { static_cast<void>(cfg["text"].Has("busy")); }),
              "Member existence by name is supported only on MAP nodes");
    EXPECT_EQ(TextOf<PliConfigTypeError>([&] { cfg["list"]["busy"]; }),
              "Member access by name not supported on non map nodes");
    EXPECT_EQ(TextOf<PliConfigTypeError>([&] { cfg[0]; }),
              "Member access by index not supported on non sequence nodes");
    EXPECT_EQ(TextOf<PliConfigTypeError>([&] { static_cast<void>(cfg["text"].GetSize()); }),
              "GetSize() not supported on non sequence/map nodes");
    EXPECT_EQ(TextOf<PliConfigTypeError>([&] { static_cast<void>(cfg.GetScalar()); }),
              "Invalid access to scalar value, node type is not SCALAR");
    EXPECT_EQ(TextOf<PliConfigTypeError>([&] { static_cast<void>(cfg["list"].Keys()); }),
              "Invalid access to map value, node type is not MAP");
}

TEST(Node, SaysWhereAnErrorStands) {
    const auto cfg = Read("\ncfg:\n  cpu: 1\n  list: []\n")["cfg"];
    try {
        static_cast<void>(cfg["list"].Has("x"));
        FAIL();
    } catch (const PliConfigError& error) {
        EXPECT_EQ(error.Where(), "test.yaml:4");
    }
}

TEST(Iteration, WalksInTheOrderOfTheDocument) {
    const auto cfg = Read("cfg: {z: 1, a: [10, 20], m: 3}")["cfg"];
    EXPECT_EQ(cfg.Keys(), (std::vector<std::string>{"z", "a", "m"}));
    std::vector<std::string> paths;
    for (const auto& value : cfg) paths.push_back(value.GetPath());
    for (const auto& element : cfg["a"]) paths.push_back(element.GetPath());
    EXPECT_EQ(paths, (std::vector<std::string>{"cfg.z", "cfg.a", "cfg.m", "cfg.a[0]", "cfg.a[1]"}));
    EXPECT_EQ(std::distance(cfg.begin(), cfg.end()), 3);
}

TEST(Iteration, EndsAndRefuses) {
    const auto empty = Value("[]");
    EXPECT_EQ(empty.begin(), empty.end());
    EXPECT_EQ(TextOf<PliConfigIterationError>([&] { *empty.begin(); }), "Iteration was already completed");
    EXPECT_EQ(TextOf<PliConfigIterationError>([&] { ++empty.end(); }), "Iteration was already completed");
    for (const char* text : {"5", "~"}) {
        EXPECT_EQ(TextOf<PliConfigIterationError>([&] { Value(text).begin(); }),
                  "Iteration over scalar/undefined nodes is not allowed");
    }
}

TEST(Scalar, ConvertsIntegersWithinTheirRange) {
    EXPECT_EQ(Value("-2147483648").As<int>(), std::numeric_limits<int>::min());
    EXPECT_EQ(Value("2147483647").As<int>(), std::numeric_limits<int>::max());
    EXPECT_EQ(Value("255").As<unsigned char>(), 255);
    EXPECT_EQ(Value("65535").As<unsigned short>(), 65535);
    EXPECT_EQ(Value("4294967295").As<unsigned int>(), 4294967295U);
    EXPECT_EQ(Value("18446744073709551615").As<unsigned long>(), std::numeric_limits<unsigned long>::max());
    EXPECT_EQ(Value("0x1F").As<int>(), 31);
    EXPECT_EQ(Value("0o17").As<int>(), 15);
    EXPECT_EQ(Value("+010").As<int>(), 10);
    EXPECT_EQ(Value("-0").As<unsigned int>(), 0U);

    const std::string out_of_range = " is out of range";
    EXPECT_NE(RefusalOf<int>("2147483648").find(out_of_range), std::string::npos);
    EXPECT_NE(RefusalOf<int>("-2147483649").find(out_of_range), std::string::npos);
    EXPECT_NE(RefusalOf<unsigned char>("300").find(out_of_range), std::string::npos);
    EXPECT_NE(RefusalOf<unsigned int>("-1").find(out_of_range), std::string::npos);
    EXPECT_NE(RefusalOf<unsigned long>("18446744073709551616").find(out_of_range), std::string::npos);
    for (const char* text : {"12abc", "yes", "1.0", "1e3", "--1", "+-1", "0x", "1_000", "+"}) {
        EXPECT_NE(RefusalOf<int>(text).find(" is no integer"), std::string::npos) << text;
    }
}

TEST(Scalar, ConvertsRealsAndBooleans) {
    EXPECT_EQ(Value("0.1").As<float>(), 0.1F);
    EXPECT_EQ(Value("-2.5e-3").As<double>(), -2.5e-3);
    EXPECT_EQ(Value("+.5").As<double>(), 0.5);
    EXPECT_EQ(Value("-.inf").As<float>(), -std::numeric_limits<float>::infinity());
    EXPECT_TRUE(std::isnan(Value(".nan").As<double>()));
    EXPECT_NE(RefusalOf<float>("1e39").find(" is out of range"), std::string::npos);
    for (const char* text : {"inf", "nan", "1.5x", "+-5", ".", "0x10", "1,5", "true"}) {
        EXPECT_NE(RefusalOf<double>(text).find(" is no number"), std::string::npos) << text;
    }

    for (const char* text : {"true", "True", "TRUE"}) EXPECT_TRUE(Value(text).As<bool>());
    for (const char* text : {"false", "False", "FALSE"}) EXPECT_FALSE(Value(text).As<bool>());
    for (const char* text : {"yes", "on", "1", "tRUE", "truee"}) {
        EXPECT_NE(RefusalOf<bool>(text).find(" is neither true nor false"), std::string::npos) << text;
    }
}

TEST(Scalar, TakesQuotedTextForText) {
    EXPECT_EQ(Value("'3'").As<std::string>(), "3");
    EXPECT_EQ(Value("500 us").As<std::string>(), "500 us");
    EXPECT_EQ(Value("'~'").As<std::string>(), "~");
    EXPECT_EQ(RefusalOf<int>("\"3\""),
              "Data type conversion to int for node v failed, reason: \"3\" is quoted, so it is text");
    EXPECT_NE(RefusalOf<bool>("!!str true").find("quoted"), std::string::npos);
}

TEST(Scalar, OtherKindsAreNoValue) {
    EXPECT_EQ(RefusalOf<int>("{a: 1}"),
              "Data type conversion to int for node v failed, reason: disallowed by converter");
    EXPECT_NE(RefusalOf<std::string>("~").find("reason: disallowed by converter"), std::string::npos);
}

// Keeps the texts that the library logs, with the logger open at DEBUG.
class LoggedTexts : public log4cplus::Appender {
public:
    ~LoggedTexts() override { destructorImpl(); }
    void close() override { closed = true; }

    std::vector<std::string> texts;

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        texts.push_back(event.getMessage());
    }
};

TEST(Matrix, IsFoundAndReadRowByRow) {
    const auto node = Value("[[1, 2, 3], [4, 5, 6.5]]");
    EXPECT_EQ(IsActualMatrix(node), (Shape{{2, 3}}));
    const auto matrix = node.As<Matrix>();
    EXPECT_EQ(matrix.GetRows(), 2U);
    EXPECT_EQ(matrix.GetColumns(), 3U);
    EXPECT_EQ(matrix.GetData(), (std::vector<double>{1, 2, 3, 4, 5, 6.5}));
    EXPECT_EQ(Value("[]").As<Matrix>().GetData().size(), 0U);
}

TEST(Matrix, LogsWhyANodeIsNone) {
    auto logger = log4cplus::Logger::getInstance("oru.configng");
    logger.setLogLevel(log4cplus::DEBUG_LOG_LEVEL);
    log4cplus::helpers::SharedObjectPtr<LoggedTexts> log{new LoggedTexts};
    logger.addAppender(log4cplus::SharedAppenderPtr{log.get()});

    EXPECT_EQ(IsActualMatrix(Value("5")), std::nullopt);
    EXPECT_EQ(IsActualMatrix(Value("[]")), (Shape{{0, 0}}));
    EXPECT_EQ(IsActualMatrix(Value("[[1], {a: 1}]")), std::nullopt);
    EXPECT_EQ(IsActualMatrix(Value("[[1, 2], [3, 4], [5]]")), std::nullopt);
    logger.removeAllAppenders();
    logger.setLogLevel(log4cplus::NOT_SET_LOG_LEVEL);
    EXPECT_EQ(log->texts, (std::vector<std::string>{
                              "IsActualMatrix: dimensions are zero",
                              "IsActualMatrix: Member row is not a sequence ( it is 3",
                              "IsActualMatrix: Member row 3 has incorrect size 1 expected: 2",
                          }));
}

TEST(Matrix, RefusesOtherShapesAndElements) {
    const std::string start =
        "Data type conversion to oru::experimental::datatypes::PliMatrix2D<double> for node v failed, "
        "reason: ";
    EXPECT_EQ(RefusalOf<Matrix>("[[1, 2], [3]]"), start + "disallowed by converter");
    EXPECT_EQ(RefusalOf<Matrix>("[[1, [2]]]"), start + "disallowed by converter");
    EXPECT_EQ(RefusalOf<Matrix>("[[1, x]]"), start + "\"x\" is no number");
}

}  // namespace
