#include "support/TestFiles.h"

#include <gtest/gtest.h>

#include <Poco/File.h>
#include <Poco/Path.h>
#include <Poco/Thread.h>
#include <Poco/Timestamp.h>

#include <fstream>
#include <sstream>

namespace brvo {
namespace test {

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

void RemoveAll(const std::string& path) {
    Poco::File file(path);
    if (file.exists()) file.remove(true);
}

bool WaitFor(const std::function<bool()>& condition, int timeoutMs) {
    Poco::Timestamp start;
    for (;;) {
        if (condition()) return true;
        if (start.elapsed() > static_cast<Poco::Timestamp::TimeDiff>(timeoutMs) * 1000) {
            return condition();
        }
        Poco::Thread::sleep(10);
    }
}

std::string LoggerSettingPath() {
    return "/usr/local/etc/kestrovanyx/SettingsXML/LoggerSetting.xml";
}

std::string SystemSettingPath() {
    return "/usr/local/etc/kestrovanyx/SettingsXML/SystemSetting.xml";
}

void WriteLoggerSetting(const std::string& innerXml) {
    WriteFile(LoggerSettingPath(),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<LoggerSetting>\n" +
                  innerXml + "\n</LoggerSetting>\n");
}

} // namespace test
} // namespace brvo
