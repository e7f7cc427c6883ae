#include "support/TestFiles.h"

#include "support/TestRoot.h"
#include "util/LoggerLog.h"

#include <gtest/gtest.h>

#include <Poco/Clock.h>
#include <Poco/File.h>
#include <Poco/Path.h>
#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace brvo {
namespace test {

std::string FixedPath(const std::string& path) {
    return TestRoot::Prefix() + path;
}

void WriteFile(const std::string& path, const std::string& content) {
    Poco::File(Poco::Path(path).parent()).createDirectories();
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    ASSERT_TRUE(out.good()) << "cannot write " << path;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> ReadLines(const std::string& path) {
    std::vector<std::string> lines;
    std::istringstream in(ReadFile(path));
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

bool FileExists(const std::string& path) {
    return Poco::File(path).exists();
}

std::string NestedXml(const std::string& name, std::size_t depth, const std::string& text) {
    std::string xml;
    xml.reserve(depth * (2 * name.size() + 5) + text.size());
    for (std::size_t i = 0; i < depth; ++i) xml += "<" + name + ">";
    xml += text;
    for (std::size_t i = 0; i < depth; ++i) xml += "</" + name + ">";
    return xml;
}

void MakeFifo(const std::string& path) {
    RemoveAll(path);
    Poco::File(Poco::Path(path).parent()).createDirectories();
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600)) << path;
}

void RemoveAll(const std::string& path) {
    Poco::File file(path);
    if (file.exists()) file.remove(true);
}

bool WaitFor(const std::function<bool()>& condition, int timeoutMs) {
    // Measured on the monotonic clock, so a child's faked wall clock or a
    // stepped system clock cannot cut the wait short or stretch it.
    const Poco::Clock start;
    const Poco::Clock::ClockDiff limit = static_cast<Poco::Clock::ClockDiff>(timeoutMs) * 1000 * TimeScale();
    for (;;) {
        if (condition()) return true;
        if (start.elapsed() > limit) {
            return condition();
        }
        Poco::Thread::sleep(10);
    }
}

std::string LoggerSettingPath() {
    return FixedPath("/usr/local/etc/kestrovanyx/SettingsXML/LoggerSetting.xml");
}

std::string SystemSettingPath() {
    return FixedPath("/usr/local/etc/kestrovanyx/SettingsXML/SystemSetting.xml");
}

void WriteLoggerSetting(const std::string& innerXml) {
    WriteFile(LoggerSettingPath(),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<LoggerSetting>\n" + innerXml + "\n</LoggerSetting>\n");
}

namespace {

std::string XmlText(const std::string& text) {
    std::string escaped;
    for (const char ch : text) {
        if (ch == '&') {
            escaped += "&amp;";
        } else if (ch == '<') {
            escaped += "&lt;";
        } else if (ch == '>') {
            escaped += "&gt;";
        } else {
            escaped += ch;
        }
    }
    return escaped;
}

} // namespace

void WriteSystemSetting(const std::string& plantId, const std::string& url, bool standAlone) {
    WriteFile(SystemSettingPath(), "<logger><general><outputControlPlantId>" + XmlText(plantId) +
                                       "</outputControlPlantId><outputControlStandAlone>" + (standAlone ? "1" : "0") +
                                       "</outputControlStandAlone><outputScheduleInformationServerUrl>" + XmlText(url) +
                                       "</outputScheduleInformationServerUrl></general></logger>");
}

void WriteSystemSettingWithDevice(const std::string& plantId, bool standAlone) {
    WriteFile(SystemSettingPath(), "<logger><general><outputControlPlantId>" + XmlText(plantId) +
                                       "</outputControlPlantId><outputControlStandAlone>" + (standAlone ? "1" : "0") +
                                       "</outputControlStandAlone></general><channelList><channel><addressList>"
                                       "<address><type>HouseHoldSolarPowerGeneration</type>"
                                       "<deviceSettingFile>pv</deviceSettingFile></address>"
                                       "</addressList></channel></channelList></logger>");
}

void WriteDeviceLimit(const std::string& limitAttributes) {
    WriteFile(FixedPath("/usr/local/etc/kestrovanyx/DeviceXML/pv.xml"),
              "<lggrdev:EchonetLiteDevices xmlns:lggrdev=\"urn:x\"><lggrdev:Device>"
              "<lggrdev:Properties><lggrdev:Property><lggrdev:Variables>"
              "<lggrdev:VariableInfo Name=\"Limit\" " +
                  limitAttributes +
                  "/></lggrdev:Variables></lggrdev:Property></lggrdev:Properties>"
                  "</lggrdev:Device></lggrdev:EchonetLiteDevices>");
}

bool WaitForSocket(const std::string& path, int timeoutMs) {
    return WaitFor(
        [&] {
            struct stat info;
            return stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
        },
        timeoutMs);
}

std::vector<std::string> FlushedLogLines() {
    LoggerLog::DeleteInstance();
    std::vector<std::string> lines = ReadLines(LogFilePath());
    LoggerLog::CreateInstance();
    return lines;
}

long long TimeScale() {
    const char* text = std::getenv("PVOC_TIME_SCALE");
    const long long scale = text != nullptr ? std::atoll(text) : 1;
    return scale > 0 ? scale : 1;
}

std::string LogFilePath() {
    return FixedPath("/media/sdcard/kestrovanyx/Log/OutputScheduleLog/OutputSchedule_pvocd.log");
}

namespace {

// The text after "[time UTC] [mark] [thread] " of a line of level `mark`;
// empty when the line is not of that level.
std::string TextAfterThread(const std::string& line, const std::string& mark) {
    const std::string level = " UTC] [" + mark + "] [";
    const std::size_t at = line.find(level);
    if (at == std::string::npos || line.compare(0, 1, "[") != 0) return std::string();
    const std::size_t close = line.find("] ", at + level.size());
    if (close == std::string::npos) return std::string();
    return line.substr(close + 2);
}

} // namespace

bool HasLogLine(const std::vector<std::string>& lines, const std::string& mark, const std::string& tag,
                const std::string& message) {
    for (const std::string& line : lines) {
        if (TextAfterThread(line, mark) == tag + " " + message) return true;
    }
    return false;
}

bool HasLogLineStarting(const std::vector<std::string>& lines, const std::string& mark, const std::string& tag,
                        const std::string& prefix) {
    const std::string start = tag + " " + prefix;
    for (const std::string& line : lines) {
        if (TextAfterThread(line, mark).compare(0, start.size(), start) == 0) return true;
    }
    return false;
}

} // namespace test
} // namespace brvo
