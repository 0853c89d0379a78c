// The exported functions. Each checks its arguments, calls the part of the library that does
// the work, and lets no exception out.
#include "vessa/vessa.h"

#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "common/CallContext.h"
#include "common/Contain.h"
#include "common/MessageFormat.h"
#include "common/ThreadScope.h"
#include "tova.h"
#include "vessa2/LifeCycle.h"

// Ends the try block of an export.
#define VESSA_RESULTS_OF_EXCEPTIONS \
  catch (const std::bad_alloc&) {   \
    return VESSA_ERR_OUT_OF_MEMORY; \
  }                                 \
  catch (...) {                     \
    LetForcedUnwindingPass();       \
    return VESSA_FAILED;            \
  }

namespace {

template <class T>
void StoreIfGiven(T* out, T value) {
    if (out != nullptr) *out = value;
}

VESSA_COLD int RefuseArgument(const char* text, const char* function, int line) {
    LogPlain(kError, text, __FILE__, function, line);
    return VESSA_ERR_ARGUMENT;
}

}  // namespace

#define REFUSE_ARGUMENT(text) RefuseArgument((text), VESSA_FUNCTION_SIGNATURE, __LINE__)

int VESSA_Init(void) {
    try {
        LOG_PLAIN(kInformation, "invoke vessa init");
        // Kept: called with every start, also when the library was started already.
        TOVA_Init();
        ThreadScope scope;
        // There may have been no memory for it when the library was loaded.
        LifeCycle* const life_cycle = LifeCycle::Make();
        if (life_cycle != nullptr) return life_cycle->Init();
    } catch (...) {
        LetForcedUnwindingPass();
    }
    LOG_PLAIN(kError, "run plugin coordinator failed");
    return VESSA_FAILED;
}

void VESSA_Uninit(void) {
    try {
        LOG_PLAIN(kInformation, "invoke vessa uninit");
        ThreadScope scope;
        if (LifeCycle* const life_cycle = LifeCycle::Get()) life_cycle->Uninit();
    } catch (...) {
        LetForcedUnwindingPass();
    }
}

VESSA_FLATTEN int VESSA_CreateInstance(const char* fkey, void** instance, int* plugin_error) {
    try {
        LogView log;
        LOG_FORMAT_IN(
            log, kDebug,
            "invoke create plugin instance, param fkey = {0}, instance {1}, plugin_error {2}", fkey,
            instance, plugin_error);
        StoreIfGiven<void*>(instance, nullptr);
        StoreIfGiven(plugin_error, 0);
        if (fkey == nullptr) return REFUSE_ARGUMENT("param fkey should not be NULL");
        if (instance == nullptr) return REFUSE_ARGUMENT("param instance should not be NULL");
        LifeCycle* const life_cycle = LifeCycle::Get();
        if (life_cycle == nullptr) return VESSA_ERR_NOT_REGISTERED;
        ThreadScope scope;
        const CallContext context{scope.State(), log};
        void* created = nullptr;
        int error = 0;
        const int result = life_cycle->provider().CreateInstance(context, fkey, created, error);
        if (result == VESSA_OK)
            LOG_FORMAT_IN(
                log, kDebug,
                "plugin provider create plugin instance succeeded, fkey {0}, instance {1}", fkey,
                created);
        else
            LOG_FORMAT_IN(
                log, kError,
                "plugin provider create plugin instance failed {0}/{0:X}, fkey {1}, plugin "
                "error {2}/{2:X}",
                result, fkey, error);
        *instance = created;
        StoreIfGiven(plugin_error, error);
        return result;
    }
    VESSA_RESULTS_OF_EXCEPTIONS
}

VESSA_FLATTEN int VESSA_DestroyInstance(void* instance, int* plugin_error) {
    try {
        LogView log;
        LOG_FORMAT_IN(log, kDebug,
                      "invoke destroy plugin instance, param instance = {0}, plugin_error {1}",
                      instance, plugin_error);
        StoreIfGiven(plugin_error, 0);
        if (instance == nullptr)
            return REFUSE_ARGUMENT("param instance should not be invalid handle");
        LifeCycle* const life_cycle = LifeCycle::Get();
        if (life_cycle == nullptr) return VESSA_ERR_ARGUMENT;
        ThreadScope scope;
        const CallContext context{scope.State(), log};
        int error = 0;
        const int result = life_cycle->provider().DestroyInstance(context, instance, error);
        if (result == VESSA_OK)
            LOG_FORMAT_IN(log, kDebug,
                          "plugin provider destroy plugin instance succeeded, instance {0}",
                          instance);
        else
            LOG_FORMAT_IN(log, kError,
                          "plugin provider destroy plugin instance failed {0}/{0:X}, plugin error "
                          "{1}/{1:X}, instance {2}",
                          result, error, instance);
        StoreIfGiven(plugin_error, error);
        return result;
    }
    VESSA_RESULTS_OF_EXCEPTIONS
}

VESSA_FLATTEN int VESSA_QueryInterface(void* instance, const char* ikey, void** plugin_interface,
                                       int* plugin_error) {
    try {
        LogView log;
        LOG_FORMAT_IN(log, kDebug,
                      "invoke query plugin interface, param instance = {0}, ikey = {1}, "
                      "plugin_interface = {2}, plugin_error = {3}",
                      instance, ikey, plugin_interface, plugin_error);
        StoreIfGiven<void*>(plugin_interface, nullptr);
        StoreIfGiven(plugin_error, 0);
        if (instance == nullptr)
            return REFUSE_ARGUMENT("param instance should not be invalid handle");
        if (ikey == nullptr) return REFUSE_ARGUMENT("param ikey should not be NULL");
        if (plugin_interface == nullptr)
            return REFUSE_ARGUMENT("param plugin_interface should not be NULL");
        LifeCycle* const life_cycle = LifeCycle::Get();
        if (life_cycle == nullptr) return VESSA_ERR_ARGUMENT;
        ThreadScope scope;
        const CallContext context{scope.State(), log};
        void* found = nullptr;
        int error = 0;
        const int result =
            life_cycle->provider().QueryInterface(context, instance, ikey, found, error);
        if (result == VESSA_OK)
            LOG_FORMAT_IN(
                log, kDebug,
                "plugin provider query plugin interface succeeded, instance {0}, ikey {1}, "
                "interface {2}",
                instance, ikey, found);
        else
            LOG_FORMAT_IN(log, kError,
                          "plugin provider query plugin interface failed {0}/{0:X}, plugin error "
                          "{1}/{1:X}, instance {2}, ikey {3}",
                          result, error, instance, ikey);
        *plugin_interface = found;
        StoreIfGiven(plugin_error, error);
        return result;
    }
    VESSA_RESULTS_OF_EXCEPTIONS
}

// Kept in the three functions below: one text for every null argument, and "[0]", "[1]", which
// are no placeholders.

int VESSA_QueryConfigAttribute(const char* fkey, const char* attribute_name, char* value,
                               unsigned int* value_len) {
    try {
        if (fkey == nullptr || attribute_name == nullptr || value_len == nullptr)
            return REFUSE_ARGUMENT("param instance should not be invalid handle");
        PluginConfigItem item;
        LifeCycle* const life_cycle = LifeCycle::Get();
        if (life_cycle == nullptr || !life_cycle->coordinator().FindPluginConfig(fkey, item)) {
            LOG_PLAIN(kError, "query config fkey failed, fkey[0]");
            return VESSA_FAILED;
        }
        const std::string_view found = item.FindAttribute(attribute_name);
        if (found.data() == nullptr) {
            LOG_PLAIN(kError, "query config attribute_name failed, fkey[0], attribute_name[1]");
            return VESSA_FAILED;
        }
        const auto length = static_cast<unsigned int>(found.size());
        if (value != nullptr) {
            if (length > *value_len) {
                LOG_PLAIN(kError,
                          "attribute value buffer is not enough, fkey[0], attribute_name[1]");
                *value_len = length;
                return VESSA_ERR_BUFFER_TOO_SMALL;
            }
            TOVA_Strncpy(value, found.data(), *value_len);
        }
        *value_len = length;
        return VESSA_OK;
    }
    VESSA_RESULTS_OF_EXCEPTIONS
}

int VESSA_QueryAllFkeys(char*** fkeys, unsigned int* count) {
    try {
        if (fkeys != nullptr) *fkeys = nullptr;
        if (count != nullptr) *count = 0;
        if (fkeys == nullptr || count == nullptr)
            return REFUSE_ARGUMENT("param instance should not be invalid handle");
        std::vector<std::string> all;
        if (LifeCycle* const life_cycle = LifeCycle::Get())
            life_cycle->coordinator().GetAllFkeys(all);
        *count = static_cast<unsigned int>(all.size());
        // Zeroed, so that what a failure below leaves can be given back.
        *fkeys = new (std::nothrow) char*[all.size()]();
        if (*fkeys == nullptr) {
            LOG_PLAIN(kError, "create fkeys vector failed, fkeynum [0]");
            return VESSA_ERR_OUT_OF_MEMORY;
        }
        for (size_t i = 0; i < all.size(); ++i) {
            const std::string& fkey = all[i];
            (*fkeys)[i] = new (std::nothrow) char[fkey.size() + 1]();
            if ((*fkeys)[i] == nullptr) {
                LOG_PLAIN(kError, "create fkey buffer failed, out of memory, bufsize=[0]");
                return VESSA_ERR_OUT_OF_MEMORY;
            }
            TOVA_Strncpy((*fkeys)[i], fkey.c_str(), fkey.size());
        }
        return VESSA_OK;
    }
    VESSA_RESULTS_OF_EXCEPTIONS
}

int VESSA_ReleaseAllFkeys(char** fkeys, unsigned int count) {
    try {
        if (fkeys == nullptr) return REFUSE_ARGUMENT("param instance should not be invalid handle");
        for (unsigned int i = 0; i < count; ++i) {
            delete[] fkeys[i];
            fkeys[i] = nullptr;
        }
        delete[] fkeys;
        return VESSA_OK;
    }
    VESSA_RESULTS_OF_EXCEPTIONS
}
