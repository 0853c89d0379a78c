#include "modules/Row.h"
#include "vessa/vessa.h"

namespace hostile {
namespace {

// What modules of tests/modules answer in their failing operations.
constexpr int kCreateError = 11;
constexpr int kDestroyError = 12;
constexpr int kQueryError = 13;
constexpr int kThrown = -1;
constexpr int kSmallest = -2147483647 - 1;

using Rows = std::vector<Row>;

Row Of(const std::string& module) {
    Row row;
    row.name = module;
    const std::size_t slash = row.name.find('/');
    if (slash != std::string::npos) row.name.erase(0, slash + 1);
    row.module = module;
    return row;
}

Row Refused(const std::string& module, int code) {
    Row row = Of(module);
    row.load.result = code;
    return row;
}

Row RefusedFile(const std::string& kind, int code) {
    Row row;
    row.name = "file_" + kind;
    row.file = kind;
    row.load.result = code;
    return row;
}

Row FailsToCreate(const std::string& module, int error) {
    Row row = Of(module);
    row.create = {VESSA_FAILED, error};
    return row;
}

Row FailsToQuery(const std::string& module, int error) {
    Row row = Of(module);
    row.query = {VESSA_FAILED, error};
    return row;
}

// An instance whose destroy failed counts as live: the module is never unloaded.
Row FailsToDestroy(const std::string& module, int error) {
    Row row = Of(module);
    row.destroy = {VESSA_FAILED, error};
    row.loses_instance = error == kThrown;
    row.stays = true;
    return row;
}

Row Announces(const std::string& module, std::vector<std::pair<std::string, int>> keys) {
    Row row = Of(module);
    row.keys = std::move(keys);
    return row;
}

Row Acts(const std::string& act, const std::string& operation) {
    Row row = Of("hostile/" + act);
    row.name = act + "_in_" + operation;
    row.operation = operation;
    return row;
}

// vessa.h: VESSA_ERR_NO_INTERFACE, VESSA_ERR_MODULE_LOAD, VESSA_ERR_MODULE_INIT.
void AddRefusedModules(Rows& rows) {
    for (const char* module : {"no_entry", "entry_null_v1", "entry_null_v2", "throw_entry",
                               "throw_entry_v1", "entry_in_dependency"})
        rows.push_back(Refused(module, VESSA_ERR_NO_INTERFACE));
    for (const char* slot : {"init", "uninit", "create", "destroy", "query"}) {
        for (const char* version : {"_v1", "_v2"})
            rows.push_back(Refused(std::string("no_") + slot + version, VESSA_ERR_NO_INTERFACE));
    }
    for (const char* module : {"init_fails", "throw_init", "hostile/init_smallest"})
        rows.push_back(Refused(module, VESSA_ERR_MODULE_INIT));
    for (const char* module : {"needs_missing_library", "undefined_symbol"})
        rows.push_back(Refused(module, VESSA_ERR_MODULE_LOAD));
}

void AddRefusedFiles(Rows& rows) {
    for (const char* kind :
         {"text", "empty", "class_32", "wrong_machine", "wrong_byte_order", "executable", "object",
          "no_segments", "segment_table_outside", "segment_end_overflows", "segment_larger_in_file",
          "i386", "folder", "fifo", "device", "noise"})
        rows.push_back(RefusedFile(kind, VESSA_ERR_MODULE_LOAD));
    for (const char* kind : {"missing", "dangling_link"})
        rows.push_back(RefusedFile(kind, VESSA_ERR_NO_MODULE_FILE));
}

// tarnet.h, laws 2 and 3: 0 is success, any other number is passed on; what is thrown is -1.
void AddFailingOperations(Rows& rows) {
    for (const char* module : {"create_fails", "create_fails_v1", "create_fails_writing"})
        rows.push_back(FailsToCreate(module, kCreateError));
    for (const char* module : {"throw_create", "throw_create_v1"})
        rows.push_back(FailsToCreate(module, kThrown));
    rows.push_back(FailsToCreate("hostile/create_smallest", kSmallest));
    rows.push_back(FailsToCreate("hostile/create_like_ours", VESSA_ERR_NOT_REGISTERED));
    rows.push_back(FailsToQuery("query_fails", kQueryError));
    rows.push_back(FailsToQuery("throw_query", kThrown));
    rows.push_back(FailsToDestroy("destroy_fails", kDestroyError));
    rows.push_back(FailsToDestroy("throw_destroy", kThrown));
    // The module is unloaded all the same.
    rows.push_back(Of("uninit_fails"));
    rows.push_back(Of("throw_uninit"));
}

void AddOddAnswers(Rows& rows) {
    // Such a success counts as a live instance that nobody can destroy.
    Row null = Of("create_null");
    null.gives_null = true;
    null.stays = true;
    rows.push_back(null);
    Row no_interface = Of("hostile/query_null");
    no_interface.finds_null = true;
    rows.push_back(no_interface);
    for (const char* module : {"same_instance", "hostile/create_garbage"}) {
        Row same = Of(module);
        same.second = VESSA_ERR_INSTANCE_CONFLICT;
        rows.push_back(same);
    }
    for (const char* module :
         {"hostile/query_garbage", "no_version", "no_version_v1", "no_ikeys", "no_ikeys_v1",
          "no_map", "ikeys_null", "ikeys_empty_entry", "throw_ikeys", "throw_version",
          "v1_entry_v2_in_dependency", "both_entries"})
        rows.push_back(Of(module));
    // Its own doing, and the system's: it stays mapped, and serves in the next life.
    Row keeps = Of("hostile/stays_mapped");
    keeps.stays = true;
    rows.push_back(keeps);
    Row holds_itself = Acts("keeps_itself", "Init");
    holds_itself.stays = true;
    rows.push_back(holds_itself);
}

// tarnet.h, GetPluginMapFkeys.
void AddAnnouncements(Rows& rows) {
    const int none = VESSA_ERR_NOT_REGISTERED;
    const int empty = VESSA_ERR_ARGUMENT;
    rows.push_back(Announces("map_two", {{"a", 0}, {"b", 0}}));
    rows.push_back(Announces("map_negative", {{"a", none}}));
    rows.push_back(Announces("map_huge", {{"a", none}, {"b", none}}));
    rows.push_back(Announces("map_grows", {{"a", 0}, {"b", 0}, {"c", none}}));
    rows.push_back(Announces("map_shrinks", {{"a", 0}, {"b", none}, {"c", none}}));
    rows.push_back(Announces("map_second_negative", {{"a", none}}));
    rows.push_back(
        Announces("map_unterminated", {{std::string(256, 'x'), 0}, {std::string(255, 'x'), none}}));
    rows.push_back(Announces("map_empty_key", {{"a", 0}, {"", empty}}));
    rows.push_back(Announces("map_repeated", {{"a", 0}}));
    rows.push_back(Announces("map_fails_first", {{"a", 0}, {"b", 0}}));
    rows.push_back(Announces("map_fails_second", {{"a", none}, {"", empty}}));
    rows.push_back(Announces("throw_map", {{"a", none}}));
    rows.push_back(Announces("hostile/map_own", {{"m", 0}, {"x", 0}}));
    rows.push_back(Announces("hostile/map_steals", {{"good", 0}, {"x", 0}}));
    rows.push_back(Announces("hostile/map_blank", {{" ", 0}, {"x", 0}}));
    rows.push_back(Announces("hostile/map_forgets", {{"a", none}, {"", empty}}));
}

// Exceptions of another type, calls back and threads, in every operation.
void AddActs(Rows& rows) {
    const char* const kOperations[] = {"Entry",
                                       "Init",
                                       "Uninit",
                                       "CreateInstance",
                                       "DestroyInstance",
                                       "QueryInterface",
                                       "GetFileVersion",
                                       "GetAllInterfaceIkeys",
                                       "GetPluginMapFkeys"};
    for (const std::string operation : kOperations) {
        Row throws = Acts("throws", operation);
        if (operation == "Entry") throws.load.result = VESSA_ERR_NO_INTERFACE;
        if (operation == "Init") throws.load.result = VESSA_ERR_MODULE_INIT;
        if (operation == "CreateInstance") throws.create = {VESSA_FAILED, kThrown};
        if (operation == "QueryInterface") throws.query = {VESSA_FAILED, kThrown};
        if (operation == "DestroyInstance") throws.destroy = {VESSA_FAILED, kThrown};
        throws.stays = operation == "DestroyInstance";
        throws.loses_instance = throws.stays;
        throws.keys = {{"a", throws.create.result}};
        if (operation == "GetPluginMapFkeys" || operation == "Entry" || operation == "Init")
            throws.keys[0].second = VESSA_ERR_NOT_REGISTERED;
        rows.push_back(throws);
        for (const char* act : {"calls_back", "starts_threads"}) {
            rows.push_back(Acts(act, operation));
            rows.back().keys = {{"a", 0}};
        }
    }
    // One that calls the library all the time, from Init to Uninit.
    rows.push_back(Of("hostile/keeps_thread"));
}

}  // namespace

std::vector<Row> AllRows() {
    Rows rows;
    AddRefusedModules(rows);
    AddRefusedFiles(rows);
    AddFailingOperations(rows);
    AddOddAnswers(rows);
    AddAnnouncements(rows);
    AddActs(rows);
    return rows;
}

}  // namespace hostile
