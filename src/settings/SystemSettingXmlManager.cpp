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
// large, is not read at all: no tree, with the reason in `unusable`. A
// document without the logger root gives no tree and `missingRoot`.
// Throws what the parser throws.
SystemSettingXmlManager::Parsed SystemSettingXmlManager::ParseFile() {
    Parsed parsed;
    FileChangeWatch& watch = FileChangeWatch::Instance();
    {
        ScopedLock lock(cacheMutex_);
        if (cachedTree_ && watch.Unchanged(cachedGeneration_)) {
            parsed.tree = cachedTree_;
            return parsed;
        }
    }
    const std::string path = FileUtil::GetSystemSettingFile();
    const std::int64_t generation = watch.Arm(path);
    std::string text;
    if (!XmlSettingsParser::ReadFile(path, text, parsed.unusable)) return parsed;
    {
        ScopedLock lock(cacheMutex_);
        if (cachedTree_ && text == cachedText_) {
            cachedGeneration_ = generation;
            parsed.tree = cachedTree_;
            return parsed;
        }
    }
    parsed.tree = ParseDocument(path, text);
    // A document without its root is not kept: the next read parses anew.
    parsed.missingRoot = parsed.tree == nullptr;
    if (parsed.missingRoot) return parsed;
    ScopedLock lock(cacheMutex_);
    cachedText_.swap(text);
    cachedTree_ = parsed.tree;
    cachedGeneration_ = generation;
    return parsed;
}

// Parses `text`, read from `path`; null when the document has no logger
// root. Throws what the parser throws.
std::shared_ptr<XmlNode> SystemSettingXmlManager::ParseDocument(const std::string& path, const std::string& text) {
    Poco::AutoPtr<Poco::XML::Document> document = XmlSettingsParser::Parse(path, text, true);
    Poco::XML::Node* root = document->getNodeByPath(kRootPath);
    if (root == nullptr) return nullptr;
    return std::make_shared<XmlNode>(nullptr, root);
}

bool SystemSettingXmlManager::Load() {
    return LoadAndGetTree() != nullptr;
}

std::shared_ptr<XmlNode> SystemSettingXmlManager::LoadAndGetTree() {
    Parsed parsed;
    const Caught caught = GuardedCall([&] {
        parsed = ParseFile();
        if (!parsed.tree) return;
        ScopedLock lock(mutex_);
        Fill(parsed.tree);
    });
    const std::string failure = FailureText(caught, parsed, "SystemSettingXml Load error(Load from file) ");
    if (failure.empty()) return parsed.tree;
    LoggerLog::Limited(LoggerLog::kError, kTag, kLoadErrorKind, failure);
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
    Parsed parsed;
    const Caught caught = GuardedCall([&] { parsed = ParseFile(); });
    const std::string failure = FailureText(caught, parsed, "LoadSystemSettingXmlNode failed. ");
    if (failure.empty()) return parsed.tree;
    LoggerLog::Limited(LoggerLog::kError, kTag, kNodeLoadErrorKind, failure);
    return nullptr;
}

// Empty when a tree was read; else `prefix` with what was caught or why
// the file was unusable, or the missing root's own text.
std::string SystemSettingXmlManager::FailureText(const Caught& caught, const Parsed& parsed,
                                                 const std::string& prefix) {
    if (caught) return caught.Describe(prefix);
    if (parsed.missingRoot) return "SystemSettingXml Load error(logger tag not found.) ";
    if (!parsed.tree) return prefix + "[" + parsed.unusable + "]";
    return std::string();
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
