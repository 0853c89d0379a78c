// What each load writes that fails, or that succeeds with something missing. A registration
// stands all the same.
#include <gtest/gtest.h>

#include "TestPlatform.h"
#include "transcript/Transcript.h"

namespace {

using namespace transcript;
using vessa_test::Install;
using vessa_test::ListFile;

const char* const kNoFile = "-2147483646/FFFFFFFF80000002";
const char* const kNotLoaded = "-2147483642/FFFFFFFF80000006";
const char* const kNoInterface = "-2147483643/FFFFFFFF80000005";
const char* const kInitFailed = "-2147483637/FFFFFFFF8000000B";

// One list file that declares one plug-in; what its start writes is compared.
class FailingLoad : public testing::Test {
  protected:
    void Declare(const std::string& file_name) {
        text_ = ListFile().Plugin("codec", "./" + file_name).Text();
        plugin_ = {"codec", world_.dir.Path(file_name), world_.dir.Write("tarnet.xml", text_)};
    }

    void DeclareModule(const std::string& module) {
        Install(world_.dir, module, module + MODULE_SUFFIX);
        Declare(module + MODULE_SUFFIX);
    }

    // The registration with this load, which failed with this code.
    Lines Registered(const Lines& load, const std::string& code) const {
        return IsRegistered(plugin_, load + LoadFails(path(), code) +
                                         Lines{"5 load plugin failed " + code +
                                               ", fkey codec, file path " + path()});
    }

    void ExpectStart(const Lines& registration) {
        ASSERT_TRUE(world_.coordinator.Run());
        EXPECT_TRUE(world_.log.Is(Starts(
            world_.Root(), Round(ListIsRead(plugin_.list, text_, {path()}) + registration))));
    }

    // The lines about a module that was mapped and then refused.
    Lines RefusedOperations(const std::string& reason) const {
        return ModuleIsMapped(path()) +
               Lines{"5 " + reason + Handle(path()),
                     std::string("5 get plugin ops failed, error ") + kNoInterface +
                         ", plugin handle " + Handle(path()) + ", filename " + Name(path()),
                     "3 param dso_handle = " + Handle(path())};
    }

    Lines RefusedFile(const std::string& code) const {
        return {"5 load plugin dso failed, error " + code + ", filename " + Name(path()) +
                ", folder path " + Name(path())};
    }

    const std::string& path() const { return plugin_.path; }

    World world_;
    Declared plugin_;
    std::string text_;
};

TEST_F(FailingLoad, OfAFileThatDoesNotExist) {
    Declare("codec" MODULE_SUFFIX);
    ExpectStart(Registered(ModuleIsLookedAt(path()) +
                               Lines{"5 plugin file does not exist, file path " + path()} +
                               RefusedFile(kNoFile),
                           kNoFile));
}

TEST_F(FailingLoad, OfAFileThatIsNoModule) {
    world_.dir.Write("codec" MODULE_SUFFIX, "no module");
    Declare("codec" MODULE_SUFFIX);
    ExpectStart(Registered(
        ModuleIsLookedAt(path()) +
            Lines{"5 TOVA_LoadDso failed, error {*}/{*}, plugin path " + path(),
                  std::string("3 load plugin rlt ") + kNotLoaded + ", plugin dso handle 0"} +
            RefusedFile(kNotLoaded),
        kNotLoaded));
}

TEST_F(FailingLoad, OfAModuleWhoseDependencyIsMissing) {
    DeclareModule("needs_missing_library");
    ExpectStart(Registered(
        ModuleIsLookedAt(path()) +
            Lines{"5 TOVA_LoadDso failed, error {*}/{*}, plugin path " + path(),
                  std::string("3 load plugin rlt ") + kNotLoaded + ", plugin dso handle 0"} +
            RefusedFile(kNotLoaded),
        kNotLoaded));
}

TEST_F(FailingLoad, OfAModuleWithoutAnEntry) {
    DeclareModule("no_entry");
    ExpectStart(Registered(
        ModuleIsMapped(path()) +
            Lines{"5 no tarnet export entry, e.g. Tarnet_GetPluginInterface, plugin_handle " +
                      Handle(path()) + ", error {*}/{*}",
                  std::string("5 get plugin ops failed, error ") + kNoInterface +
                      ", plugin handle " + Handle(path()) + ", filename " + Name(path()),
                  "3 param dso_handle = " + Handle(path())},
        kNoInterface));
}

TEST_F(FailingLoad, OfAModuleWhoseEntryGivesNull) {
    DeclareModule("entry_null_v2");
    ExpectStart(Registered(
        RefusedOperations("unable to get plugin export interface2, plugin_handle "), kNoInterface));
}

TEST_F(FailingLoad, OfAVersion1ModuleWhoseEntryGivesNull) {
    DeclareModule("entry_null_v1");
    ExpectStart(Registered(
        RefusedOperations("unable to get plugin export interface, plugin_handle "), kNoInterface));
}

struct MissingSlot {
    const char* module;
    const char* function;
};

class FailingLoadSlot : public FailingLoad, public testing::WithParamInterface<MissingSlot> {};

TEST_P(FailingLoadSlot, OfAModuleWithoutAMandatoryOperation) {
    DeclareModule(GetParam().module);
    ExpectStart(Registered(RefusedOperations(std::string("no func ") + GetParam().function +
                                             " in plugin export interface, plugin_handle "),
                           kNoInterface));
}

INSTANTIATE_TEST_SUITE_P(
    Slots, FailingLoadSlot,
    testing::Values(MissingSlot{"no_init_v2", "Init"}, MissingSlot{"no_uninit_v2", "Uninit"},
                    MissingSlot{"no_create_v2", "CreateInstance/CreateInstance_V2"},
                    MissingSlot{"no_destroy_v2", "DestroyInstance"},
                    MissingSlot{"no_query_v2", "QueryInterface"}, MissingSlot{"no_init_v1", "Init"},
                    MissingSlot{"no_uninit_v1", "Uninit"},
                    MissingSlot{"no_create_v1", "CreateInstance/CreateInstance_V2"},
                    MissingSlot{"no_destroy_v1", "DestroyInstance"},
                    MissingSlot{"no_query_v1", "QueryInterface"}),
    [](const auto& parameter) { return std::string(parameter.param.module); });

TEST_F(FailingLoad, OfAModuleWhoseInitFails) {
    DeclareModule("init_fails");
    ExpectStart(Registered(ModuleIsMapped(path()) + TableIsRead(path()) +
                               Lines{"5 init plugin failed, error 7/7, filename ",
                                     "3 param dso_handle = " + Handle(path())},
                           kInitFailed));
}

TEST_F(FailingLoad, OfAModuleWhoseInitThrows) {
    DeclareModule("throw_init");
    ExpectStart(Registered(ModuleIsMapped(path()) + TableIsRead(path()) +
                               Lines{"5 init plugin failed, error -1/FFFFFFFFFFFFFFFF, filename ",
                                     "3 param dso_handle = " + Handle(path())},
                           kInitFailed));
}

TEST_F(FailingLoad, IsTriedAgainWithTheFirstInstance) {
    Declare("codec" MODULE_SUFFIX);
    world_.Start();
    const std::string load_failed = std::string("5 load plugin failed ") + kNoFile;
    void* instance = nullptr;
    int plugin_error = 1;

    EXPECT_EQ(world_.provider().CreateInstance("codec", instance, plugin_error), -2147483646);
    EXPECT_TRUE(world_.log.Is(Lines{"2 param fkey = codec"} + ModuleIsLookedAt(path()) +
                              Lines{"5 plugin file does not exist, file path " + path()} +
                              RefusedFile(kNoFile) + LoadFails(path(), kNoFile) +
                              Lines{load_failed + ", plugin file path " + path(),
                                    std::string("5 create plugin instance failed ") + kNoFile +
                                        ", plugin error 0/0, fkey 0, plugin file path " + path()}));

    // The module has arrived meanwhile.
    world_.log.Clear();
    Install(world_.dir, "good_v2", "codec" MODULE_SUFFIX);
    void* const created = world_.Create("codec");
    EXPECT_TRUE(world_.log.Is(InstanceIsCreated(plugin_, 1, ModuleIsLoaded(path()))));
    EXPECT_EQ(world_.Destroy(created), 0);
}

TEST_F(FailingLoad, DoesNotConcernWhatIsOptional) {
    DeclareModule("no_version");
    ExpectStart(IsRegistered(
        plugin_, ModuleIsMapped(path()) +
                     Lines{"4 no func GetFileVersion in plugin export interface, plugin_handle " +
                               Handle(path()),
                           "3 tarnet_handle " + Handle(path()) +
                               ",Init {*}, Unint {*}, CreateInstance 0, CreateInstance_V2 "
                               "{*},DestroyInstance {*}, QueryInterface {*}, "
                               "GetAllInterfaceIkeys 0, GetFileVersion {*},",
                           "3 load plugin succeeded, plugin handle " + Handle(path()) +
                               ", plugin folder " + world_.Root() +
                               ", plugin filename no_version" MODULE_SUFFIX
                               ", plugin file version , interface ikeys [iface]",
                           "3 load plugin succeeded, plugin filename no_version" MODULE_SUFFIX
                           ", reference counter 1, plugin path " +
                               path(),
                           "3 load plugin succeeded, plugin " + Object(path()) +
                               ", plugin file path " + path()}));
}

TEST_F(FailingLoad, IsNoneWhenTheModuleListsNoInterfaces) {
    DeclareModule("ikeys_null");
    ExpectStart(IsRegistered(plugin_, ModuleIsLoaded(path(), "1.2.3 test", "[]")));
}

// The file name stays taken after a failed Uninit, so it is one that no other test uses.
TEST_F(FailingLoad, AFailingUninitIsReportedAndTheStopGoesOn) {
    const std::string name = Name(world_.Root()) + MODULE_SUFFIX;
    Install(world_.dir, "uninit_fails", name);
    Declare(name);
    world_.Start();
    ASSERT_TRUE(world_.coordinator.Shutdown());
    const std::string code = "-2147483636/FFFFFFFF8000000C";
    EXPECT_TRUE(world_.log.Is(
        Stops(world_.Root(),
              IsUnregisteredAtStop(
                  plugin_,
                  {"4 uninit plugin failed, error 9/9, plugin folder path " + world_.Root() +
                       ", plugin filename " + name,
                   "3 param dso_handle = {*}",
                   "5 unload plugin failed " + code + ", plugin {*plugin}, plugin filename " + name,
                   "5 unload plugin failed, plugin {*plugin}, plugin file path " + path(),
                   "5 unload plugin failed " + code + ", fkey codec, file path " + path()}))));
}

}  // namespace
