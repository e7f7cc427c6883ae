#include "ConfigCheck.h"

#include "StorageLocation.h"

#include "settings/DeviceSettingXmlManager.h"
#include "settings/LoggerSettingManager.h"
#include "settings/SettingKeys.h"
#include "util/FileUtil.h"

#include <Poco/Crypto/X509Certificate.h>
#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>
#include <Poco/StringTokenizer.h>
#include <Poco/URI.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <sys/stat.h>
#include <sys/un.h>

namespace brvo {

namespace {

const char kLoggerRoot[] = "LoggerSetting";
const char kSystemRoot[] = "logger";
const char kLimitElement[] = "lggrdev:VariableInfo";
const std::size_t kSocketPathRoom = sizeof(sockaddr_un{}.sun_path);

std::string Trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(" \t\r\n") + 1 - first);
}

// Reads `text` as the daemon does (strtoll in `base`: leading blanks and
// a sign taken, reading stops at the first other character). `whole` tells
// whether nothing but blanks followed the number.
bool ReadNumber(const std::string& text, int base, long long& value, bool& whole) {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    value = std::strtoll(begin, &end, base);
    if (end == begin || errno == ERANGE) return false;
    whole = Trimmed(end).empty();
    return true;
}

// The finding for a value that is not a plain number, or one outside
// [low, high] (with what the daemon does then, when `otherwise` says);
// empty text when it is neither.
std::string NumberProblem(const std::string& name, const std::string& text, int base, long long low, long long high,
                          const std::string& otherwise = std::string()) {
    long long value = 0;
    bool whole = false;
    const std::string quoted = "value \"" + text + "\" of <" + name + ">";
    if (!ReadNumber(text, base, value, whole)) return quoted + " is not a number; the default is used";
    if (!whole) return quoted + " is not a number; it is read as " + std::to_string(value);
    if (value < low || value > high) {
        return quoted + " is out of range (" + std::to_string(low) + " to " + std::to_string(high) + ")" +
               (otherwise.empty() ? std::string() : ": " + otherwise);
    }
    return std::string();
}

// What the daemon makes of a number of LoggerSetting.xml: the values it
// uses as they are, and what it does with one outside them.
struct NumberRange {
    const char* name;
    long long low;
    long long high;
    const char* otherwise;
};

// The watchdog's period in seconds becomes milliseconds in a long, which
// has 32 bits on the device.
const long long kMaxWatchdogSeconds = INT32_MAX / 1000;

const NumberRange kLoggerRanges[] = {
    {"WatchdogFileUpdateInterval", 1, kMaxWatchdogSeconds,
     "below 1 the watchdog file is touched once only, above it every 24.8 days"},
    {"OutputScheduleLogMaxRollIndex", 0, INT32_MAX, "0 keeps 12 rolled files"},
    {"OutputScheduleEnableLogBufferedIO", 0, 1, "any value but 0 means buffered"},
    {"LogLevel", 0, 5, "pvocd keeps level 1"},
    {"OutputScheduleLogMaxBufferedSize", 0, INT32_MAX, "0 keeps 4096 bytes"},
    {"OutputControlScheduleRetensionCycle", 1, INT32_MAX,
     "below 1 every start deletes the slot in force and all before it"},
    {"OutputControlTestMode", 0, 1, "any value but 0 means test mode"},
    {"OutputScheduleMonitoringInterval", 1, INT32_MAX, "below 1 pvocd uses 180"},
    {"OutputControlSocketTimeout", 1, INT32_MAX, "below 1 pvocd uses 60"},
};

const NumberRange* LoggerRange(const std::string& name) {
    for (const NumberRange& range : kLoggerRanges) {
        if (name == range.name) return &range;
    }
    return nullptr;
}

// The finding for a decimal number that a reader in the C locale takes
// otherwise than it looks (a decimal comma, text after it), or for one
// that is not above 0; empty when it is a plain positive number.
std::string DecimalProblem(const std::string& name, const std::string& text) {
    const std::string quoted = "value \"" + text + "\" of <" + name + ">";
    const std::string trimmed = Trimmed(text);
    if (trimmed.empty()) return std::string();
    char* end = nullptr;
    const double value = std::strtod(trimmed.c_str(), &end);
    if (end == trimmed.c_str()) return quoted + " is not a number";
    const std::string read = trimmed.substr(0, static_cast<std::size_t>(end - trimmed.c_str()));
    if (*end == ',') return quoted + " has a decimal comma; it is read as " + read + ": write a decimal point";
    if (*end != '\0') return quoted + " is not a number; it is read as " + read;
    if (!std::isfinite(value) || !(value > 0)) return quoted + " is not a capacity above 0";
    return std::string();
}

std::vector<std::string> Segments(const std::string& path) {
    Poco::StringTokenizer parts(path, "/", Poco::StringTokenizer::TOK_IGNORE_EMPTY);
    return std::vector<std::string>(parts.begin(), parts.end());
}

// The names the daemon reads from SystemSetting.xml, by parent path.
std::map<std::string, std::vector<std::string>> SystemNames() {
    std::map<std::string, std::vector<std::string>> names;
    std::string parent = kSystemRoot;
    names[parent] = {kGeneral};
    for (const std::string& segment : Segments(DeviceSettingXmlManager::AddressPath())) {
        names[parent].push_back(segment);
        parent += "/" + segment;
    }
    names[parent] = {kDeviceType, kDeviceSettingFile};
    const std::string general = std::string(kSystemRoot) + "/" + kGeneral;
    names[general] = {kLoggerIp,
                      kLoggerDefaultGw,
                      kServerUrl,
                      kCloudCooperation,
                      kSystem,
                      kPvStartupDate,
                      kOutputControlPlantId,
                      kOutputControlStandAlone,
                      kOutputScheduleInformationServerUrl,
                      kFacilityCertifiedCapacity};
    names[general + "/" + kSystem] = {kLocale, kLocaleList, kTimezone, kCommunicationErrorRetry};
    return names;
}

std::string Parent(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

bool Known(const std::string& name, const std::vector<std::string>& names) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::string Unknown(const std::string& name, const std::string& nearest) {
    return "unknown element <" + name + ">" +
           (nearest.empty() ? "; it is ignored" : "; did you mean <" + nearest + ">?");
}

} // namespace

ConfigCheck::ConfigCheck(const std::string& dir) : dir_(dir) {
    while (dir_.size() > 1 && dir_.back() == '/') dir_.pop_back();
}

bool ConfigCheck::Run(std::string& error) {
    struct stat info;
    if (::stat(dir_.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        error = "no settings directory at " + dir_;
        return false;
    }
    sdcardPath_ = LoggerSettingManager::Defaults()["SdcardPath"];
    CheckLoggerSetting();
    CheckSystemSetting();
    CheckCertificates();
    return true;
}

std::size_t ConfigCheck::Distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// Near enough: at most a quarter of the name's letters, and at least two,
// differ; "SdCardPath" finds "SdcardPath", "Timeout" finds nothing.
std::string ConfigCheck::Nearest(const std::string& name, const std::vector<std::string>& known) {
    std::string best;
    std::size_t bestDistance = std::max<std::size_t>(2, name.size() / 4) + 1;
    for (const std::string& candidate : known) {
        const std::size_t distance = Distance(name, candidate);
        if (distance < bestDistance) {
            best = candidate;
            bestDistance = distance;
        }
    }
    return best;
}

void ConfigCheck::Add(const std::string& file, int line, int column, const std::string& message) {
    findings_.push_back(file + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " + message);
}

void ConfigCheck::Add(const std::string& file, const Element& at, const std::string& message) {
    Add(file, at.line, at.column, message);
}

// A file the daemon cannot use leaves its defaults (LoggerSetting.xml) or
// no plant at all (SystemSetting.xml).
bool ConfigCheck::Usable(const std::string& file, const SettingsScan& scan, bool missingIsFinding) {
    if (scan.Error().empty()) return true;
    if (!scan.Missing() || missingIsFinding) Add(file, scan.ErrorLine(), scan.ErrorColumn(), scan.Error());
    return false;
}

void ConfigCheck::CheckLoggerSetting() {
    const std::string file = dir_ + "/LoggerSetting.xml";
    const SettingsScan scan(file);
    if (!Usable(file, scan, false)) {
        CheckSdcardPath(file, nullptr);
        return;
    }
    const Element& root = scan.Elements().front();
    if (root.name != kLoggerRoot) {
        Add(file, root, "document element <" + root.name + "> is not <" + kLoggerRoot + ">; the defaults are used");
        CheckSdcardPath(file, nullptr);
        return;
    }
    const Element* sdcard = nullptr;
    for (const Element& element : scan.Elements()) {
        if (Parent(element.path) != kLoggerRoot) continue;
        CheckLoggerElement(file, element);
        if (element.name == "SdcardPath") {
            sdcard = &element;
            sdcardPath_ = element.text;
        }
    }
    CheckSdcardPath(file, sdcard != nullptr ? sdcard : &root);
}

void ConfigCheck::CheckLoggerElement(const std::string& file, const Element& element) {
    const std::vector<std::string> known = LoggerSettingManager::KnownKeys();
    if (!Known(element.name, known)) {
        Add(file, element, Unknown(element.name, Nearest(element.name, known)));
        return;
    }
    if (Known(element.name, LoggerSettingManager::NumericKeys())) {
        const NumberRange* range = LoggerRange(element.name);
        const std::string problem =
            range != nullptr ? NumberProblem(element.name, element.text, 10, range->low, range->high, range->otherwise)
                             : NumberProblem(element.name, element.text, 10, INT32_MIN, INT32_MAX);
        if (!problem.empty()) Add(file, element, problem);
    }
    if ((element.name == "LoggerSocketPath" || element.name == "OutputControlSocketPath") &&
        element.text.size() >= kSocketPathRoom) {
        Add(file, element,
            "socket path of " + std::to_string(element.text.size()) +
                " bytes is too long for a UNIX socket address (at most " + std::to_string(kSocketPathRoom - 1) + ")");
    }
}

// The databases, the log and the certificates live below SdcardPath: a
// path that is no mount point fills the device's own storage instead.
void ConfigCheck::CheckSdcardPath(const std::string& file, const Element* at) {
    const int line = at != nullptr ? at->line : 1;
    const int column = at != nullptr ? at->column : 1;
    struct stat card;
    struct stat parent;
    if (::stat(sdcardPath_.c_str(), &card) != 0 || !S_ISDIR(card.st_mode)) {
        Add(file, line, column,
            "SdcardPath " + sdcardPath_ + " is no directory; pvocd keeps its data in " + FileUtil::FallbackDataRoot());
        return;
    }
    const bool mounted = ::stat((sdcardPath_ + "/..").c_str(), &parent) == 0 &&
                         (parent.st_dev != card.st_dev || parent.st_ino == card.st_ino);
    if (!mounted) Add(file, line, column, "SdcardPath " + sdcardPath_ + " is not a mount point");
}

void ConfigCheck::CheckSystemSetting() {
    const std::string file = dir_ + "/SystemSetting.xml";
    const SettingsScan scan(file);
    if (!Usable(file, scan, true)) return;
    const Element& root = scan.Elements().front();
    if (root.name != kSystemRoot) {
        Add(file, root, "document element <" + root.name + "> is not <" + kSystemRoot + ">; pvocd has no plant ID");
        return;
    }
    const std::map<std::string, std::vector<std::string>> names = SystemNames();
    for (const Element& element : scan.Elements()) {
        const auto parent = names.find(Parent(element.path));
        // The file is shared with the rest of the logger: only a name close
        // to one pvocd reads is taken for a slip.
        if (parent != names.end() && !Known(element.name, parent->second)) {
            const std::string nearest = Nearest(element.name, parent->second);
            if (!nearest.empty()) Add(file, element, Unknown(element.name, nearest));
        }
        CheckSystemElement(file, element);
    }
    const Element* device = DeviceFileElement(scan.Elements());
    if (device != nullptr) CheckDevice(file, *device);
}

// The deviceSettingFile of the first address whose type is the household
// solar power generation unit; the last of each child counts, as it does
// for the daemon.
const SettingsScan::Element* ConfigCheck::DeviceFileElement(const std::vector<Element>& elements) {
    const std::string address = std::string(kSystemRoot) + "/" + DeviceSettingXmlManager::AddressPath();
    std::string type;
    const Element* file = nullptr;
    for (std::size_t i = 0; i <= elements.size(); ++i) {
        if (i == elements.size() || elements[i].path == address) {
            if (type == kHouseHoldSolarPowerGeneration && file != nullptr) return file;
            type.clear();
            file = nullptr;
        } else if (elements[i].path == address + "/" + kDeviceType) {
            type = elements[i].text;
        } else if (elements[i].path == address + "/" + kDeviceSettingFile) {
            file = &elements[i];
        }
    }
    return nullptr;
}

void ConfigCheck::CheckSystemElement(const std::string& file, const Element& element) {
    const std::string general = std::string(kSystemRoot) + "/" + kGeneral;
    if (element.path == general + "/" + kSystem + "/" + kCommunicationErrorRetry) {
        const std::string problem = NumberProblem(element.name, element.text, 0, 0, 99);
        if (!problem.empty()) Add(file, element, problem);
    } else if (element.path == general + "/" + kFacilityCertifiedCapacity) {
        const std::string problem = DecimalProblem(element.name, element.text);
        if (!problem.empty()) Add(file, element, problem);
    } else if (element.path == general + "/" + kOutputControlStandAlone && element.text != "0" && element.text != "1") {
        Add(file, element,
            "value \"" + element.text + "\" of <" + element.name + "> is read as 0: only \"1\" means stand-alone");
    } else if (element.path == general + "/" + kOutputScheduleInformationServerUrl) {
        try {
            const std::string scheme = Poco::URI(element.text).getScheme();
            if (scheme != "http" && scheme != "https") {
                Add(file, element,
                    "server URL \"" + element.text + "\" has the scheme \"" + scheme +
                        "\"; pvocd speaks http and https only");
            }
        } catch (const Poco::Exception& e) {
            Add(file, element, "server URL \"" + element.text + "\" is not a URL: " + e.displayText());
        }
    }
}

void ConfigCheck::CheckDevice(const std::string& file, const Element& deviceFile) {
    const std::string path = Parent(dir_) + "/DeviceXML/" + deviceFile.text + ".xml";
    const SettingsScan scan(path);
    if (scan.Missing()) {
        Add(file, deviceFile, "device description " + path + " not found; the limit is not read");
        return;
    }
    if (!Usable(path, scan, true)) return;
    for (const Element& element : scan.Elements()) {
        const auto name = element.attributes.find(kEchonetName);
        if (element.name != kLimitElement || name == element.attributes.end() || name->second != "Limit") continue;
        const auto value = element.attributes.find(kEchonetValueMin);
        const std::string text = value == element.attributes.end() ? std::string() : value->second;
        const std::string problem = NumberProblem(kEchonetValueMin, text, 0, INT32_MIN, INT32_MAX);
        if (!problem.empty()) Add(path, element, problem);
        return;
    }
}

// pvocd trusts the *.pem and *.crt files of its certificates directory;
// one that does not parse is skipped with a warning in its log.
void ConfigCheck::CheckCertificates() {
    const std::string dir = StorageLocation(sdcardPath_).Root() + FileUtil::CertificatesSubdirectory();
    if (!FileUtil::Exists(dir)) return;
    std::vector<std::string> files;
    try {
        for (Poco::DirectoryIterator it(dir), end; it != end; ++it) {
            const std::string name = it.name();
            const std::string suffix = name.size() > 4 ? name.substr(name.size() - 4) : std::string();
            if ((suffix == ".pem" || suffix == ".crt") && it->isFile()) files.push_back(it->path());
        }
    } catch (const Poco::Exception& e) {
        Add(dir, 1, 1, "cannot list the certificates: " + e.displayText());
    }
    std::sort(files.begin(), files.end());
    for (const std::string& path : files) {
        try {
            Poco::Crypto::X509Certificate certificate(path);
        } catch (const Poco::Exception& e) {
            Add(path, 1, 1, "not a PEM certificate; pvocd skips it: " + e.displayText());
        }
    }
}

} // namespace brvo
