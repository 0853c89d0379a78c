// The messages of the exports: texts, levels and order, and that a refused call goes no
// further.
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "skrib.h"
#include "support/ModuleHook.h"
#include "unit/LifeCycleWorld.h"

namespace vessa_test {
namespace {

using Lines = std::vector<std::string>;

constexpr char kNull[] = "0000000000000000";
constexpr char kBadArgument[] = "5 param instance should not be invalid handle";

std::string Address(const void* pointer) {
    char text[17];
    std::snprintf(text, sizeof text, "%016" PRIXPTR, reinterpret_cast<uintptr_t>(pointer));
    return text;
}

class Exports : public LifeCycleTest {
  protected:
    // The lines since the last look.
    Lines Seen() {
        const Lines lines = LifeLines(log_);
        log_.Clear();
        return lines;
    }
    // Nothing was written but by the exports themselves: the call went no further.
    bool WentNoFurther() const {
        for (const LogRecord& record : log_.Records()) {
            if (record.file != "src/vessa2/vessa.cpp") return false;
        }
        return true;
    }

    World world_;
    LogCapture log_;
};

TEST_F(Exports, CreateRefusesANullFkeyBeforeANullInstance) {
    void* instance = this;
    int error = 99;
    EXPECT_EQ(VESSA_CreateInstance(nullptr, nullptr, &error), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(error, 0);
    EXPECT_TRUE(WentNoFurther());
    EXPECT_TRUE(LinesAre(Seen(), {std::string("2 invoke create plugin instance, param fkey = , "
                                              "instance ") +
                                      kNull + ", plugin_error " + Address(&error),
                                  "5 param fkey should not be NULL"}));
    EXPECT_EQ(VESSA_CreateInstance(nullptr, &instance, nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(instance, nullptr);
    EXPECT_TRUE(WentNoFurther());
    EXPECT_TRUE(LinesAre(Seen(), {"2 invoke create plugin instance, param fkey = , instance " +
                                      Address(&instance) + ", plugin_error " + kNull,
                                  "5 param fkey should not be NULL"}));
    EXPECT_EQ(VESSA_CreateInstance("a", nullptr, nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_TRUE(WentNoFurther());
    EXPECT_TRUE(LinesAre(Seen(), {std::string("2 invoke create plugin instance, param fkey = a, "
                                              "instance ") +
                                      kNull + ", plugin_error " + kNull,
                                  "5 param instance should not be NULL"}));
}

TEST_F(Exports, DestroyRefusesTheInvalidHandle) {
    int error = 99;
    EXPECT_EQ(VESSA_DestroyInstance(nullptr, &error), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(error, 0);
    EXPECT_TRUE(WentNoFurther());
    EXPECT_TRUE(LinesAre(Seen(), {std::string("2 invoke destroy plugin instance, param instance "
                                              "= ") +
                                      kNull + ", plugin_error " + Address(&error),
                                  kBadArgument}));
}

TEST_F(Exports, QueryRefusesInstanceThenIkeyThenInterface) {
    void* found = this;
    const std::string head = "2 invoke query plugin interface, param instance = ";
    EXPECT_EQ(VESSA_QueryInterface(nullptr, nullptr, nullptr, nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_TRUE(WentNoFurther());
    EXPECT_TRUE(LinesAre(Seen(), {head + kNull + ", ikey = , plugin_interface = " + kNull +
                                      ", plugin_error = " + kNull,
                                  kBadArgument}));
    EXPECT_EQ(VESSA_QueryInterface(this, nullptr, nullptr, nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_TRUE(WentNoFurther());
    EXPECT_TRUE(LinesAre(Seen(), {head + Address(this) + ", ikey = , plugin_interface = " + kNull +
                                      ", plugin_error = " + kNull,
                                  "5 param ikey should not be NULL"}));
    EXPECT_EQ(VESSA_QueryInterface(this, nullptr, &found, nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(found, nullptr);
    Seen();
    EXPECT_EQ(VESSA_QueryInterface(this, "i", nullptr, nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_TRUE(WentNoFurther());
    EXPECT_TRUE(LinesAre(Seen(), {head + Address(this) + ", ikey = i, plugin_interface = " + kNull +
                                      ", plugin_error = " + kNull,
                                  "5 param plugin_interface should not be NULL"}));
}

TEST_F(Exports, SayWhatSucceeded) {
    world_.AddDelayed("a");
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    Seen();
    void* instance = nullptr;
    int error = 99;
    ASSERT_EQ(VESSA_CreateInstance("a", &instance, &error), VESSA_OK);
    EXPECT_EQ(error, 0);
    EXPECT_TRUE(
        LinesAre(Seen(), {"2 invoke create plugin instance, param fkey = a, instance " +
                              Address(&instance) + ", plugin_error " + Address(&error),
                          "2 plugin provider create plugin instance succeeded, fkey a, instance " +
                              Address(instance)}));
    void* found = nullptr;
    ASSERT_EQ(VESSA_QueryInterface(instance, "iface", &found, &error), VESSA_OK);
    EXPECT_TRUE(
        LinesAre(Seen(), {"2 invoke query plugin interface, param instance = " + Address(instance) +
                              ", ikey = iface, plugin_interface = " + Address(&found) +
                              ", plugin_error = " + Address(&error),
                          "2 plugin provider query plugin interface succeeded, instance " +
                              Address(instance) + ", ikey iface, interface " + Address(found)}));
    ASSERT_EQ(VESSA_DestroyInstance(instance, &error), VESSA_OK);
    EXPECT_TRUE(LinesAre(Seen(), {"2 invoke destroy plugin instance, param instance = " +
                                      Address(instance) + ", plugin_error " + Address(&error),
                                  "2 plugin provider destroy plugin instance succeeded, instance " +
                                      Address(instance)}));
    VESSA_Uninit();
}

TEST_F(Exports, SayWhatTheRegistryOrTheModuleRefused) {
    world_.AddDelayed("a");
    ModuleHook hook;
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    Seen();
    void* instance = this;
    int error = 99;
    EXPECT_EQ(VESSA_CreateInstance("b", &instance, &error), VESSA_ERR_NOT_REGISTERED);
    EXPECT_EQ(instance, nullptr);
    EXPECT_EQ(error, 0);
    EXPECT_TRUE(LinesAre(Seen(), {"2 invoke create plugin instance, param fkey = b, {*}",
                                  "5 plugin provider create plugin instance failed "
                                  "-2147483645/FFFFFFFF80000003, fkey b, plugin error 0/0"}));
    // A module's own number travels in plugin_error, with nothing that it stored.
    hook.On("a", "CreateInstance_V2", [this](ModuleCall& call) {
        *call.out = this;
        call.Return(-17);
    });
    instance = this;
    EXPECT_EQ(VESSA_CreateInstance("a", &instance, &error), VESSA_FAILED);
    EXPECT_EQ(instance, nullptr);
    EXPECT_EQ(error, -17);
    EXPECT_TRUE(
        LinesAre(Seen(), {"2 invoke create plugin instance, param fkey = a, {*}",
                          "5 plugin provider create plugin instance failed "
                          "-1/FFFFFFFFFFFFFFFF, fkey a, plugin error -17/FFFFFFFFFFFFFFEF"}));
    hook.Off("a", "CreateInstance_V2");
    instance = Create("a");
    hook.On("a", "QueryInterface", [](ModuleCall& call) { call.Return(300); });
    Seen();
    void* found = this;
    EXPECT_EQ(VESSA_QueryInterface(instance, "i", &found, &error), VESSA_FAILED);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(error, 300);
    EXPECT_TRUE(LinesAre(
        Seen(), {"2 invoke query plugin interface, param instance = {*}",
                 "5 plugin provider query plugin interface failed -1/FFFFFFFFFFFFFFFF, plugin "
                 "error 300/12C, instance " +
                     Address(instance) + ", ikey i"}));
    EXPECT_EQ(VESSA_DestroyInstance(this, &error), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(error, 0);
    EXPECT_TRUE(LinesAre(Seen(), {"2 invoke destroy plugin instance, param instance = {*}",
                                  "5 plugin provider destroy plugin instance failed "
                                  "-2147483647/FFFFFFFF80000001, plugin error 0/0, instance " +
                                      Address(this)}));
    // Without plugin_error the results are the same.
    EXPECT_EQ(VESSA_QueryInterface(instance, "i", &found, nullptr), VESSA_FAILED);
    Destroy(instance);
    VESSA_Uninit();
}

TEST_F(Exports, LeaveTheDestroyedPointerOnAnInstanceConflict) {
    world_.AddDelayed("a", "same_instance");
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    void* const instance = Create("a");
    void* second = nullptr;
    int error = 99;
    EXPECT_EQ(VESSA_CreateInstance("a", &second, &error), VESSA_ERR_INSTANCE_CONFLICT);
    EXPECT_EQ(second, instance);
    EXPECT_EQ(error, 0);
    Destroy(instance);
    VESSA_Uninit();
}

TEST_F(Exports, KeepOneTextForEveryNullArgumentOfAConfigurationQuery) {
    unsigned int number = 0;
    char** fkeys = nullptr;
    EXPECT_EQ(VESSA_QueryConfigAttribute(nullptr, "x", nullptr, &number), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(VESSA_QueryConfigAttribute("a", nullptr, nullptr, &number), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(VESSA_QueryConfigAttribute("a", "x", nullptr, nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(VESSA_QueryAllFkeys(&fkeys, nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(VESSA_QueryAllFkeys(nullptr, &number), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(VESSA_ReleaseAllFkeys(nullptr, 3), VESSA_ERR_ARGUMENT);
    EXPECT_TRUE(log_.Is(Lines(6, kBadArgument)));
}

TEST_F(Exports, SayWhatAConfigurationQueryDidNotFindWithoutNamingIt) {
    world_.AddDelayed("a");
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    log_.Clear();
    char value[2];
    unsigned int length = sizeof value;
    EXPECT_EQ(VESSA_QueryConfigAttribute("b", "file", value, &length), VESSA_FAILED);
    EXPECT_EQ(VESSA_QueryConfigAttribute("a", "loadfkeys", value, &length), VESSA_FAILED);
    EXPECT_EQ(length, sizeof value);
    EXPECT_EQ(VESSA_QueryConfigAttribute("a", "delayload", value, &length),
              VESSA_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 4u);
    EXPECT_TRUE(log_.Is({"5 query config fkey failed, fkey[0]",
                         "5 query config attribute_name failed, fkey[0], attribute_name[1]",
                         "5 attribute value buffer is not enough, fkey[0], attribute_name[1]"}));
    log_.Clear();
    char** fkeys = nullptr;
    EXPECT_EQ(VESSA_QueryConfigAttribute("a", "delayload", nullptr, &length), VESSA_OK);
    EXPECT_EQ(VESSA_QueryAllFkeys(&fkeys, &length), VESSA_OK);
    EXPECT_EQ(VESSA_ReleaseAllFkeys(fkeys, length), VESSA_OK);
    EXPECT_TRUE(log_.Is({}));
    VESSA_Uninit();
}

TEST(ExportsWithoutALog, RefuseArgumentsAllTheSame) {
    LogCapture log(SKRIB_LEVEL_OFF);
    void* instance = &log;
    EXPECT_EQ(VESSA_CreateInstance(nullptr, &instance, nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(instance, nullptr);
    EXPECT_EQ(VESSA_DestroyInstance(nullptr, nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(VESSA_QueryInterface(&log, nullptr, &instance, nullptr), VESSA_ERR_ARGUMENT);
    EXPECT_EQ(VESSA_ReleaseAllFkeys(nullptr, 0), VESSA_ERR_ARGUMENT);
    EXPECT_TRUE(log.Is({}));
}

TEST_F(Exports, ThatDestroyOneInstanceTwiceAtOnceLetOneThrough) {
    world_.AddDelayed("a");
    ModuleHook hook;
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    void* const instance = Create("a");
    int nested = 0;
    hook.On("a", "DestroyInstance",
            [&](ModuleCall&) { nested = VESSA_DestroyInstance(instance, nullptr); });
    Destroy(instance);
    EXPECT_EQ(nested, VESSA_ERR_ARGUMENT);
    EXPECT_EQ(hook.Count("a", "DestroyInstance"), 1);
    VESSA_Uninit();
}

TEST_F(Exports, AnswerAModuleItsOwnAttributesWhileItIsRegistered) {
    world_.Add("a", "good_v2", {{"note", "of its own"}});
    ModuleHook hook;
    char value[16] = "";
    hook.On("a", "Init", [&](ModuleCall&) {
        unsigned int length = sizeof value;
        EXPECT_EQ(VESSA_QueryConfigAttribute("a", "note", value, &length), VESSA_OK);
    });
    ASSERT_EQ(VESSA_Init(), VESSA_OK);
    EXPECT_STREQ(value, "of its own");
    VESSA_Uninit();
}

}  // namespace
}  // namespace vessa_test
