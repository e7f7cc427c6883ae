#include "app/CommandLine.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace brvo {
namespace {

// The text `line` prints into a temporary file, and its exit status.
struct Printed {
    int status;
    std::string out;
    std::string err;
};

std::string Contents(std::FILE* file) {
    std::rewind(file);
    std::string text;
    char buffer[512];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, n);
    std::fclose(file);
    return text;
}

Printed Answer(const CommandLine& line) {
    std::FILE* out = std::tmpfile();
    std::FILE* err = std::tmpfile();
    Printed printed;
    printed.status = line.Answer(out, err);
    printed.out = Contents(out);
    printed.err = Contents(err);
    return printed;
}

TEST(CommandLineTest, NoArgumentRuns) {
    const char* argv[] = {"pvocd", nullptr};
    const CommandLine line(1, argv);
    EXPECT_EQ(CommandLine::kRun, line.GetAction());
    const Printed printed = Answer(line);
    EXPECT_EQ(0, printed.status);
    EXPECT_EQ("", printed.out + printed.err);
}

TEST(CommandLineTest, HelpPrintsUsageToStandardOutput) {
    const char* argv[] = {"pvocd", "--help", nullptr};
    const CommandLine line(2, argv);
    EXPECT_EQ(CommandLine::kHelp, line.GetAction());
    const Printed printed = Answer(line);
    EXPECT_EQ(0, printed.status);
    EXPECT_EQ(CommandLine::Usage(), printed.out);
    EXPECT_EQ("", printed.err);
    for (const char* text : {"Usage: pvocd [--help | --version]", "LoggerSetting.xml", "SystemSetting.xml",
                             "SIGTERM, SIGUSR1, SIGHUP, SIGINT and SIGQUIT", "--version"}) {
        EXPECT_NE(std::string::npos, printed.out.find(text)) << text;
    }
}

TEST(CommandLineTest, VersionPrintsTheAppVersion) {
    const char* argv[] = {"pvocd", "--version", nullptr};
    const CommandLine line(2, argv);
    EXPECT_EQ(CommandLine::kVersion, line.GetAction());
    const Printed printed = Answer(line);
    EXPECT_EQ(0, printed.status);
    EXPECT_EQ("pvocd " PVOCD_VERSION " (application 20220119_qtx)\n", printed.out);
}

TEST(CommandLineTest, AnyOtherArgumentIsAUsageError) {
    const char* unknown[] = {"pvocd", "-h", nullptr};
    const char* extra[] = {"pvocd", "--version", "now", nullptr};
    const char* empty[] = {"pvocd", "", nullptr};
    for (const auto& argv : {unknown, extra, empty}) {
        const int argc = argv == extra ? 3 : 2;
        const CommandLine line(argc, argv);
        EXPECT_EQ(CommandLine::kBadArgument, line.GetAction());
        const Printed printed = Answer(line);
        EXPECT_EQ(2, printed.status);
        EXPECT_EQ("", printed.out);
        const std::string culprit = argv[argc - 1];
        EXPECT_EQ(0u, printed.err.find("pvocd: unexpected argument '" + culprit + "'\n")) << printed.err;
        EXPECT_NE(std::string::npos, printed.err.find(CommandLine::Usage()));
    }
}

} // namespace
} // namespace brvo
