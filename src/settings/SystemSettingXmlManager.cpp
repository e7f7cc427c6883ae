#include "settings/SystemSettingXmlManager.h"

#include <atomic>

#include "settings/SettingKeys.h"
#include "settings/XmlNode.h"
#include "settings/XmlSettingsParser.h"
#include "util/FileChangeWatch.h"
#include "util/FileUtil.h"
#include "util/GuardedCall.h"
#include "util/LoggerLog.h"
#include "util/ScopedLock.h"

#include <Poco/AutoPtr.h>
#include <Poco/DOM/Document.h>
#include <Poco/Exception.h>

namespace brvo {

namespace {

const std::string kTag = "SystemSettingXmlManager";
// The file is loaded again for every request that needs it: a broken file
// gives one load error a period, not one per request.
const std::string kLoadErrorKind = "SystemSettingXml Load error";
// The tree readers' own load errors, counted apart from Load's.
const std::string kNodeLoadErrorKind = "LoadSystemSettingXmlNode failed";
const std::string kRootPath = "/logger";
const std::string kRootName = "logger";

// Read from every thread; created by whichever thread first needs it (the
// start-up check and an answer worker's snapshot rebuild may race to it).
std::atomic<SystemSettingXmlManager*> instance(nullptr);

// Thrown inside Load when the document has no logger root, so that the
// caller can log the message the file's readers have always written.
class MissingRoot : public std::exception {};

} // namespace

void SystemSettingXmlManager::CreateInstance() {
    if (instance.load() != nullptr) return;
    SystemSettingXmlManager* created = new SystemSettingXmlManager();
    SystemSettingXmlManager* expected = nullptr;
    // A thread that lost the race frees its own and uses the winner's.
    if (!instance.compare_exchange_strong(expected, created)) delete created;
}

SystemSettingXmlManager* SystemSettingXmlManager::GetInstance() {
    return instance;
}

SystemSettingXmlManager& SystemSettingXmlManager::Shared() {
    CreateInstance();
    return *GetInstance();
}

void SystemSettingXmlManager::DeleteInstance() {
    delete instance.exchange(nullptr);
}

SystemSettingXmlManager::SystemSettingXmlManager() : cachedGeneration_(FileChangeWatch::kNotWatched) {}

SystemSettingXmlManager::~SystemSettingXmlManager() {}

// The file is reloaded for every target-power request, so the tree of the
// bytes last parsed is kept and handed out again while the file holds the
// same bytes: without reading it while the change watch reports nothing
// since those bytes were read, else after reading it and comparing. Any
// other content is parsed anew. A file that is no regular file, or too
// large, is not read at all: null, with the reason in `unusable`.
std::shared_ptr<XmlNode> SystemSettingXmlManager::ParseFile(std::string& unusable) {
    FileChangeWatch& watch = FileChangeWatch::Instance();
    {
        ScopedLock lock(cacheMutex_);
        if (cachedTree_ && watch.Unchanged(cachedGeneration_)) return cachedTree_;
    }
    const std::string path = FileUtil::GetSystemSettingFile();
    const std::int64_t generation = watch.Arm(path);
    std::string text;
    if (!XmlSettingsParser::ReadFile(path, text, unusable)) return nullptr;
    {
        ScopedLock lock(cacheMutex_);
        if (cachedTree_ && text == cachedText_) {
            cachedGeneration_ = generation;
            return cachedTree_;
        }
    }
    std::shared_ptr<XmlNode> tree = ParseDocument(path, text);
    ScopedLock lock(cacheMutex_);
    cachedText_.swap(text);
    cachedTree_ = tree;
    cachedGeneration_ = generation;
    return tree;
}

// Parses `text`, read from `path`. Throws what the parser throws, or
// MissingRoot.
std::shared_ptr<XmlNode> SystemSettingXmlManager::ParseDocument(const std::string& path, const std::string& text) {
    Poco::AutoPtr<Poco::XML::Document> document = XmlSettingsParser::Parse(path, text, true);
    Poco::XML::Node* root = document->getNodeByPath(kRootPath);
    if (root == nullptr) throw MissingRoot();
    return std::make_shared<XmlNode>(nullptr, root);
}

bool SystemSettingXmlManager::Load() {
    return LoadAndGetTree() != nullptr;
}

std::shared_ptr<XmlNode> SystemSettingXmlManager::LoadAndGetTree() {
    try {
        std::string unusable;
        std::shared_ptr<XmlNode> tree = ParseFile(unusable);
        if (!tree) {
            LoggerLog::Limited(LoggerLog::kError, kTag, kLoadErrorKind,
                               "SystemSettingXml Load error(Load from file) [" + unusable + "]");
            return nullptr;
        }
        ScopedLock lock(mutex_);
        Fill(tree);
        return tree;
    } catch (const MissingRoot&) {
        LoggerLog::Limited(LoggerLog::kError, kTag, kLoadErrorKind,
                           "SystemSettingXml Load error(logger tag not found.) ");
    } catch (const Poco::Exception& e) {
        LoggerLog::Limited(LoggerLog::kError, kTag, kLoadErrorKind,
                           "SystemSettingXml Load error(Load from file) [" + e.displayText() + "]");
    } catch (const std::exception&) {
        LoggerLog::Limited(LoggerLog::kError, kTag, kLoadErrorKind,
                           "SystemSettingXml Load error(Load from file) exception");
    }
    return nullptr;
}

bool SystemSettingXmlManager::Load(const std::shared_ptr<XmlNode>& tree) {
    if (!tree) return false;
    const Caught caught = GuardedCall([&] {
        ScopedLock lock(mutex_);
        Fill(tree);
    });
    if (caught) LoggerLog::Error(kTag, caught.Describe("SystemSettingXml Load error(Poco::XmlNode) "));
    return !caught;
}

std::shared_ptr<XmlNode> SystemSettingXmlManager::LoadSystemSettingXmlNode() {
    try {
        std::string unusable;
        std::shared_ptr<XmlNode> tree = ParseFile(unusable);
        if (!tree) {
            LoggerLog::Limited(LoggerLog::kError, kTag, kNodeLoadErrorKind,
                               "LoadSystemSettingXmlNode failed. [" + unusable + "]");
        }
        return tree;
    } catch (const MissingRoot&) {
        LoggerLog::Limited(LoggerLog::kError, kTag, kNodeLoadErrorKind,
                           "SystemSettingXml Load error(logger tag not found.) ");
    } catch (const Poco::Exception& e) {
        LoggerLog::Limited(LoggerLog::kError, kTag, kNodeLoadErrorKind,
                           "LoadSystemSettingXmlNode failed. [" + e.displayText() + "]");
    } catch (const std::exception&) {
        LoggerLog::Limited(LoggerLog::kError, kTag, kNodeLoadErrorKind, "LoadSystemSettingXmlNode failed. exception");
    }
    return nullptr;
}

// Called with the mutex held: discards the old values, then reads the
// logger attributes and the last general section of the tree.
void SystemSettingXmlManager::Fill(const std::shared_ptr<XmlNode>& tree) {
    tree_.reset();
    loggerAttribute_.reset();
    general_.reset();
    if (tree->GetName() == kRootName) loggerAttribute_.reset(new XmlDataLoggerAttribute(*tree));
    for (const XmlNode* child : tree->GetChildren()) {
        if (child->GetName() == kGeneral) general_.reset(new XmlDataGeneral(*child));
    }
    tree_ = tree;
}

bool SystemSettingXmlManager::HasGeneral() const {
    ScopedLock lock(mutex_);
    return general_ != nullptr;
}

std::string SystemSettingXmlManager::GetLoggerId() const {
    ScopedLock lock(mutex_);
    return loggerAttribute_ ? loggerAttribute_->GetLoggerId() : std::string();
}

std::string SystemSettingXmlManager::GetLoggerPlantId() const {
    ScopedLock lock(mutex_);
    return loggerAttribute_ ? loggerAttribute_->GetPlantId() : std::string();
}

std::string SystemSettingXmlManager::GetTimezone() const {
    ScopedLock lock(mutex_);
    return general_ && general_->GetSystem() ? general_->GetSystem()->GetTimezone() : std::string();
}

int SystemSettingXmlManager::GetCommunicationErrorRetry() const {
    ScopedLock lock(mutex_);
    return general_ && general_->GetSystem() ? general_->GetSystem()->GetCommunicationErrorRetry() : 0;
}

std::string SystemSettingXmlManager::GetOutputControlPlantId() const {
    ScopedLock lock(mutex_);
    return general_ ? general_->GetOutputControlPlantId() : std::string();
}

bool SystemSettingXmlManager::GetOutputControlStandAlone() const {
    ScopedLock lock(mutex_);
    return general_ ? general_->GetOutputControlStandAlone() : false;
}

std::string SystemSettingXmlManager::GetOutputScheduleInformationServerUrl() const {
    ScopedLock lock(mutex_);
    return general_ ? general_->GetOutputScheduleInformationServerUrl() : std::string();
}

std::string SystemSettingXmlManager::GetFacilityCertifiedCapacity() const {
    ScopedLock lock(mutex_);
    return general_ ? general_->GetFacilityCertifiedCapacity() : std::string();
}

bool SystemSettingXmlManager::GetCloudCooperation() const {
    ScopedLock lock(mutex_);
    return general_ ? general_->GetCloudCooperation() : false;
}

void SystemSettingXmlManager::SetOutputControlPlantId(const std::string& plantId) {
    ScopedLock lock(mutex_);
    if (general_) general_->SetOutputControlPlantId(plantId);
}

void SystemSettingXmlManager::SetOutputControlStandAlone(bool standAlone) {
    ScopedLock lock(mutex_);
    if (general_) general_->SetOutputControlStandAlone(standAlone);
}

} // namespace brvo
