// Reader of SystemSetting.xml, the data logger's shared system settings:
// the logger's identity, its plant and the output-control parameters. The
// file is reread whenever a flow asks for a fresh load; the daemon never
// writes it.
//
// Lock rules: mutex_ guards the loaded values, cacheMutex_ the last parse
// kept; each is a leaf lock, and the two are never held together.
#ifndef BRVO_SETTINGS_SYSTEMSETTINGXMLMANAGER_H
#define BRVO_SETTINGS_SYSTEMSETTINGXMLMANAGER_H

#include "settings/XmlDataGeneral.h"
#include "settings/XmlDataLoggerAttribute.h"
#include "settings/XmlNode.h"
#include "util/Mutex.h"
#include "util/ThreadAnnotations.h"

#include <cstdint>

#include <memory>
#include <string>

namespace brvo {

class Caught;

class SystemSettingXmlManager {
public:
    // Creates the process-wide instance if absent (nothing is loaded yet).
    // Safe from any thread: racing callers end up with one instance.
    static void CreateInstance();
    // The instance, or null before CreateInstance.
    static SystemSettingXmlManager* GetInstance();
    // Deletes the instance.
    static void DeleteInstance();
    // The instance, created first if absent.
    static SystemSettingXmlManager& Shared();

    SystemSettingXmlManager();
    virtual ~SystemSettingXmlManager();

    // Reads SystemSetting.xml and replaces the tree and both records. False
    // (with a log line) when the file is missing, is no regular file, is
    // larger than the settings cap, cannot be parsed (elements nested deeper
    // than the cap included) or has no logger root; the previous values
    // then stay.
    bool Load();
    // Load(), returning the tree the values were filled from: the tree
    // LoadSystemSettingXmlNode would give for the same file. Null (with
    // Load's log line) when Load fails.
    std::shared_ptr<XmlNode> LoadAndGetTree();
    // Replaces the records from an already built tree of such a file.
    // False when `tree` is null or reading it fails.
    bool Load(const std::shared_ptr<XmlNode>& tree);
    // Parses the file and returns its tree from the logger element, without
    // touching the loaded values. Null (with a log line) on failure.
    std::shared_ptr<XmlNode> LoadSystemSettingXmlNode();

    // Whether a general section is loaded.
    bool HasGeneral() const;
    // Logger id and the logger's plant id; empty when nothing is loaded.
    std::string GetLoggerId() const;
    std::string GetLoggerPlantId() const;
    // Time zone of the system record; empty when absent.
    std::string GetTimezone() const;
    // Retry count of the system record, 0 to 99; 0 when absent.
    int GetCommunicationErrorRetry() const;
    // Output-control values of the general section; empty or false when absent.
    std::string GetOutputControlPlantId() const;
    bool GetOutputControlStandAlone() const;
    std::string GetOutputScheduleInformationServerUrl() const;
    std::string GetFacilityCertifiedCapacity() const;
    bool GetCloudCooperation() const;

    // Change the loaded general section in memory only; lost at the next
    // Load, and ignored when no general section is loaded.
    void SetOutputControlPlantId(const std::string& plantId);
    void SetOutputControlStandAlone(bool standAlone);

private:
    // What one read of the file gave: a tree, or none with the reason.
    struct Parsed {
        std::shared_ptr<XmlNode> tree;
        // Why the file could not be read; empty when it was.
        std::string unusable;
        // The document has no logger root.
        bool missingRoot = false;
    };

    Parsed ParseFile() EXCLUDES(cacheMutex_);
    static std::string FailureText(const Caught& caught, const Parsed& parsed, const std::string& prefix);
    static std::shared_ptr<XmlNode> ParseDocument(const std::string& path, const std::string& text);
    void Fill(const std::shared_ptr<XmlNode>& tree) REQUIRES(mutex_);

    // The manager is shared between the request workers and the timer
    // threads; the mutex keeps a reload from racing a reader.
    mutable Mutex mutex_;
    std::shared_ptr<XmlNode> tree_ GUARDED_BY(mutex_);
    std::unique_ptr<XmlDataLoggerAttribute> loggerAttribute_ GUARDED_BY(mutex_);
    std::unique_ptr<XmlDataGeneral> general_ GUARDED_BY(mutex_);

    // The bytes of the file as last parsed and their tree (never changed
    // after parsing, so it is handed out to every reader), and the change
    // watch's generation of the last read that found those bytes.
    Mutex cacheMutex_;
    std::string cachedText_ GUARDED_BY(cacheMutex_);
    std::shared_ptr<XmlNode> cachedTree_ GUARDED_BY(cacheMutex_);
    std::int64_t cachedGeneration_ GUARDED_BY(cacheMutex_);
};

} // namespace brvo

#endif
