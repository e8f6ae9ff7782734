#include "options.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <sstream>
#include <vector>

namespace qrbthumb {
namespace {

struct Parsed {
    int code = 0;
    ToolOptions options;
    std::string out;
    std::string err;
};

Parsed Parse(std::initializer_list<const char*> args) {
    std::vector<const char*> argv = {"qrb-thumb"};
    argv.insert(argv.end(), args.begin(), args.end());
    Parsed p;
    std::ostringstream out, err;
    p.code = ParseOptions(static_cast<int>(argv.size()), argv.data(), &p.options, out, err);
    p.out = out.str();
    p.err = err.str();
    return p;
}

TEST(ToolOptions, DefaultsWithOnlyInputs) {
    const Parsed p = Parse({"a.jpg", "b.mp3"});
    ASSERT_EQ(p.code, -1) << p.err;
    EXPECT_EQ(p.options.inputs, (std::vector<std::string>{"a.jpg", "b.mp3"}));
    EXPECT_EQ(p.options.width, 320);
    EXPECT_EQ(p.options.height, 240);
    EXPECT_EQ(p.options.frames, 1);
    EXPECT_EQ(p.options.kind, MediaKind::Unknown);
    EXPECT_EQ(p.options.outDir, ".");
    EXPECT_FALSE(p.options.useCache);
    EXPECT_FALSE(p.options.json);
    EXPECT_FALSE(p.options.encoded);
    EXPECT_FALSE(p.options.verbose);
    EXPECT_EQ(p.options.sheetPath, "");
    EXPECT_DOUBLE_EQ(p.options.timeoutSeconds, 120);
}

TEST(ToolOptions, EveryOptionReachesTheRecord) {
    const Parsed p =
        Parse({"-s", "160x90", "-n", "5", "-k", "web", "-o", "thumbs", "--cache", "--json",
               "--sheet", "s.html", "--timeout", "2.5", "--encoded", "-v", "http://h/x"});
    ASSERT_EQ(p.code, -1) << p.err;
    EXPECT_EQ(p.options.width, 160);
    EXPECT_EQ(p.options.height, 90);
    EXPECT_EQ(p.options.frames, 5);
    EXPECT_EQ(p.options.kind, MediaKind::Web);
    EXPECT_EQ(p.options.outDir, "thumbs");
    EXPECT_TRUE(p.options.useCache);
    EXPECT_TRUE(p.options.json);
    EXPECT_EQ(p.options.sheetPath, "s.html");
    EXPECT_DOUBLE_EQ(p.options.timeoutSeconds, 2.5);
    EXPECT_TRUE(p.options.encoded);
    EXPECT_TRUE(p.options.verbose);
}

TEST(ToolOptions, SizeZeroByZeroAsksForTheOwnSizeAndTheLargestSideIsAccepted) {
    Parsed p = Parse({"-s", "0x0", "a.jpg"});
    ASSERT_EQ(p.code, -1) << p.err;
    EXPECT_EQ(p.options.width, 0);
    EXPECT_EQ(p.options.height, 0);
    p = Parse({"--size", "4096X1", "a.jpg"});
    ASSERT_EQ(p.code, -1) << p.err;
    EXPECT_EQ(p.options.width, 4096);
    EXPECT_EQ(p.options.height, 1);
}

TEST(ToolOptions, UsageErrorsExitWithTwoAndSayWhy) {
    const std::initializer_list<const char*> bad[] = {
        {},                      // no input
        {"-s", "320", "a.jpg"},  // no height
        {"-s", "x240", "a.jpg"},
        {"-s", "320x-1", "a.jpg"},
        {"-s", "0x240", "a.jpg"},          // one side zero
        {"-s", "4097x10", "a.jpg"},        // beyond the largest side
        {"-s", "99999999999x1", "a.jpg"},  // would overflow an int
        {"-n", "0", "a.jpg"},
        {"-n", "6", "a.jpg"},
        {"-n", "two", "a.jpg"},
        {"-k", "photo", "a.jpg"},
        {"--timeout", "0", "a.jpg"},
        {"--timeout", "-3", "a.jpg"},
        {"--no-such-option", "a.jpg"},
        {"a.jpg", "-o"},  // option without its value
    };
    for (const auto& args : bad) {
        const Parsed p = Parse(args);
        std::string shown;
        for (const char* a : args) shown += std::string(a) + " ";
        EXPECT_EQ(p.code, kExitUsage) << shown;
        EXPECT_FALSE(p.err.empty()) << shown;
        EXPECT_TRUE(p.out.empty()) << shown;
    }
}

TEST(ToolOptions, HelpExitsWithZeroAndListsTheOptions) {
    const Parsed p = Parse({"--help"});
    EXPECT_EQ(p.code, kExitOk);
    for (const char* option : {"--size", "--frames", "--kind", "--output", "--cache", "--json",
                               "--sheet", "--timeout", "INPUT"}) {
        EXPECT_NE(p.out.find(option), std::string::npos) << option;
    }
}

}  // namespace
}  // namespace qrbthumb
