// Fuzz target of the SystemSetting.xml reader: the input is the file's
// content. It is loaded as the flows load it, every getter and setter is
// used, and the raw tree the device settings walk is looked up, printed
// and written back out.
#include "fuzz/FuzzEnvironment.h"

#include "settings/SystemSettingXmlManager.h"
#include "settings/XmlNode.h"
#include "util/FileUtil.h"

#include <cstdint>
#include <memory>
#include <string>

using brvo::fuzz::FuzzEnvironment;

namespace {

const std::string kWrittenFile = "/tmp/pvocd-fuzz/written.xml";

// The lookups the readers make, and selectors with and without prefixes.
void WalkTree(const brvo::XmlNode& tree) {
    static const char* const kPaths[] = {"channelList/channel/addressList/address",
                                         "general/system",
                                         "general",
                                         "/logger",
                                         "",
                                         "general[a:b]/system",
                                         "lggrdev:Device/lggrdev:VariableInfo[Name:Limit]",
                                         "a//b"};
    for (const char* path : kPaths) {
        const std::shared_ptr<brvo::XmlNode::NodeList> found = tree.FindNodes(path);
        FuzzEnvironment::Check(found != nullptr, "FindNodes returned null");
        const brvo::XmlNode* one = tree.FindNode(path);
        FuzzEnvironment::Check(one == nullptr || !found->empty(), "FindNode found what FindNodes did not");
        for (const brvo::XmlNode* node : *found) brvo::XmlNode::GetAttribute(node, "Name");
    }
    tree.GetChildValue("general");
    FuzzEnvironment::Check(!tree.ToString().empty(), "empty ToString");
    tree.Write(kWrittenFile);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzEnvironment::RequireSandbox("SystemSettingFuzz");
    // No log: its buffer keeps lines across inputs, which makes libFuzzer
    // check for leaks after every input and slows the run many times over.
    // The messages are built all the same.
    FuzzEnvironment::WriteFile(kWrittenFile, "");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzEnvironment::WriteFile(brvo::FileUtil::GetSystemSettingFile(), FuzzEnvironment::Text(data, size));
    brvo::SystemSettingXmlManager settings;
    const bool loaded = settings.Load();
    settings.HasGeneral();
    settings.GetLoggerId();
    settings.GetLoggerPlantId();
    settings.GetTimezone();
    const int retries = settings.GetCommunicationErrorRetry();
    FuzzEnvironment::Check(retries >= 0 && retries <= 99, "retry count out of range");
    settings.GetOutputControlPlantId();
    settings.GetOutputControlStandAlone();
    settings.GetOutputScheduleInformationServerUrl();
    settings.GetFacilityCertifiedCapacity();
    settings.GetCloudCooperation();
    settings.SetOutputControlPlantId("01234567890123456789012345");
    settings.SetOutputControlStandAlone(true);
    if (settings.HasGeneral()) {
        FuzzEnvironment::Check(settings.GetOutputControlPlantId() == "01234567890123456789012345" &&
                                   settings.GetOutputControlStandAlone(),
                               "in-memory setters lost");
    }

    const std::shared_ptr<brvo::XmlNode> tree = settings.LoadSystemSettingXmlNode();
    FuzzEnvironment::Check(loaded == (tree != nullptr), "Load and LoadSystemSettingXmlNode disagree");
    if (tree) {
        FuzzEnvironment::Check(settings.Load(tree), "loading a parsed tree failed");
        WalkTree(*tree);
    }
    FuzzEnvironment::Check(!settings.Load(nullptr), "loading no tree succeeded");
    return 0;
}
