/* A plain C application: the results and the out parameters of every export. The first
 * argument names the part; the test has built the world that it expects. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "Check.h"
#include "modules/TestInterface.h"
#include "vessa/vessa.h"

#define LENGTH(array) (sizeof(array) / sizeof((array)[0]))

static void* const kMarker = (void*)&check_failures;

/* The numbers as they are known outside; the list must have these and no others. */
static int Codes(void) {
    static const struct {
        const char* name;
        int number;
        unsigned int hex;
    } expected[] = {{"VESSA_OK", 0, 0x0u},
                    {"VESSA_FAILED", -1, 0xFFFFFFFFu},
                    {"VESSA_ERR_ARGUMENT", -2147483647, 0x80000001u},
                    {"VESSA_ERR_NO_MODULE_FILE", -2147483646, 0x80000002u},
                    {"VESSA_ERR_NOT_REGISTERED", -2147483645, 0x80000003u},
                    {"VESSA_ERR_NO_INTERFACE", -2147483643, 0x80000005u},
                    {"VESSA_ERR_MODULE_LOAD", -2147483642, 0x80000006u},
                    {"VESSA_ERR_MODULE_UNLOAD", -2147483641, 0x80000007u},
                    {"VESSA_ERR_OUT_OF_MEMORY", -2147483640, 0x80000008u},
                    {"VESSA_ERR_BUFFER_TOO_SMALL", -2147483638, 0x8000000Au},
                    {"VESSA_ERR_MODULE_INIT", -2147483637, 0x8000000Bu},
                    {"VESSA_ERR_MODULE_UNINIT", -2147483636, 0x8000000Cu},
                    {"VESSA_ERR_PLUGIN_CONFLICT", -2147483635, 0x8000000Du},
                    {"VESSA_ERR_INSTANCE_CONFLICT", -2147483634, 0x8000000Eu}};
    static const struct {
        const char* name;
        int number;
        const char* meaning;
    } listed[] = {
#define LISTED(name, number, meaning) {#name, name, meaning},
        VESSA_RESULT_LIST(LISTED)
#undef LISTED
    };
    CHECK_INT(LENGTH(listed), LENGTH(expected));
    for (size_t i = 0; i < LENGTH(listed) && i < LENGTH(expected); ++i) {
        CHECK_TEXT(listed[i].name, expected[i].name);
        CHECK_INT(listed[i].number, expected[i].number);
        CHECK_INT((unsigned int)listed[i].number, expected[i].hex);
        CHECK(listed[i].meaning[0] != '\0');
    }
    CHECK_INT(sizeof(enum vessa_result), 4);
    return CheckResult();
}

/* Every combination of arguments that are given and not given: bit 0 is the first. */
static void CreateArguments(const char* fkey, int otherwise) {
    for (int given = 0; given < 8; ++given) {
        void* instance = kMarker;
        int error = 99;
        const int complete = (given & 3) == 3;
        CHECK_INT(VESSA_CreateInstance(given & 1 ? fkey : NULL, given & 2 ? &instance : NULL,
                                       given & 4 ? &error : NULL),
                  complete ? otherwise : VESSA_ERR_ARGUMENT);
        CHECK(instance == (given & 2 ? NULL : kMarker));
        CHECK_INT(error, given & 4 ? 0 : 99);
    }
}

static void DestroyArguments(void* instance) {
    for (int given = 0; given < 4; ++given) {
        int error = 99;
        CHECK_INT(VESSA_DestroyInstance(given & 1 ? instance : NULL, given & 2 ? &error : NULL),
                  VESSA_ERR_ARGUMENT);
        CHECK_INT(error, given & 2 ? 0 : 99);
    }
}

static void QueryArguments(void* instance, const char* ikey) {
    for (int given = 0; given < 16; ++given) {
        void* found = kMarker;
        int error = 99;
        CHECK_INT(VESSA_QueryInterface(given & 1 ? instance : NULL, given & 2 ? ikey : NULL,
                                       given & 4 ? &found : NULL, given & 8 ? &error : NULL),
                  VESSA_ERR_ARGUMENT);
        CHECK(found == (given & 4 ? NULL : kMarker));
        CHECK_INT(error, given & 8 ? 0 : 99);
    }
}

static void ConfigurationArguments(void) {
    for (int given = 0; given < 16; ++given) {
        char value[8] = "abcdefg";
        unsigned int length = sizeof value;
        CHECK_INT(VESSA_QueryConfigAttribute(given & 1 ? "nobody" : NULL, given & 2 ? "file" : NULL,
                                             given & 8 ? value : NULL, given & 4 ? &length : NULL),
                  (given & 7) == 7 ? VESSA_FAILED : VESSA_ERR_ARGUMENT);
        CHECK_TEXT(value, "abcdefg");
        CHECK_INT(length, sizeof value);
    }
    char** fkeys = (char**)kMarker;
    unsigned int count = 99;
    CHECK_INT(VESSA_QueryAllFkeys(NULL, NULL), VESSA_ERR_ARGUMENT);
    CHECK_INT(VESSA_QueryAllFkeys(NULL, &count), VESSA_ERR_ARGUMENT);
    CHECK_INT(count, 0);
    CHECK_INT(VESSA_QueryAllFkeys(&fkeys, NULL), VESSA_ERR_ARGUMENT);
    CHECK(fkeys == NULL);
    CHECK_INT(VESSA_ReleaseAllFkeys(NULL, 0), VESSA_ERR_ARGUMENT);
    CHECK_INT(VESSA_ReleaseAllFkeys(NULL, 1), VESSA_ERR_ARGUMENT);
}

static void AllArguments(int unknown_fkey) {
    CreateArguments("nobody", unknown_fkey);
    CreateArguments("", VESSA_ERR_ARGUMENT);
    DestroyArguments(kMarker);
    QueryArguments(kMarker, "iface");
    QueryArguments(kMarker, "");
    ConfigurationArguments();
}

static int Arguments(void) {
    AllArguments(VESSA_ERR_NOT_REGISTERED);
    VESSA_Uninit();
    CHECK_INT(VESSA_Init(), VESSA_OK);
    AllArguments(VESSA_ERR_NOT_REGISTERED);
    void* instance = NULL;
    void* found = kMarker;
    CHECK_INT(VESSA_CreateInstance("a", &instance, NULL), VESSA_OK);
    CHECK_INT(VESSA_QueryInterface(instance, "", &found, NULL), VESSA_ERR_ARGUMENT);
    CHECK(found == NULL);
    CHECK_INT(VESSA_DestroyInstance(instance, NULL), VESSA_OK);
    VESSA_Uninit();
    AllArguments(VESSA_ERR_NOT_REGISTERED);
    return CheckResult();
}

/* "a" is there; whether its module is told the fkey depends on the module's version. */
static int Life(const char* known_fkey) {
    void* first = NULL;
    void* second = NULL;
    void* found = NULL;
    int error = 99;
    CHECK_INT(VESSA_CreateInstance("a", &first, NULL), VESSA_ERR_NOT_REGISTERED);
    CHECK_INT(VESSA_Init(), VESSA_OK);
    CHECK_INT(VESSA_Init(), VESSA_OK);
    CHECK_INT(VESSA_CreateInstance("a", &first, &error), VESSA_OK);
    CHECK_INT(error, 0);
    CHECK_INT(VESSA_CreateInstance("a", &second, NULL), VESSA_OK);
    CHECK(first != NULL && second != NULL && first != second);

    CHECK_INT(VESSA_QueryInterface(first, TEST_MODULE_IKEY, &found, &error), VESSA_OK);
    if (CHECK(found != NULL)) {
        const test_interface* const interface = found;
        CHECK_INT(interface->Add(2, 3), 5);
        CHECK(interface->instance == first);
        CHECK_TEXT(interface->Fkey(first), known_fkey);
    }
    CHECK_INT(VESSA_QueryInterface(first, "unknown", &found, &error), VESSA_FAILED);
    CHECK(found == NULL);
    CHECK_INT(error, TEST_MODULE_ERR_UNKNOWN_IKEY);

    CHECK_INT(VESSA_DestroyInstance(first, &error), VESSA_OK);
    CHECK_INT(error, 0);
    CHECK_INT(VESSA_DestroyInstance(first, NULL), VESSA_ERR_ARGUMENT);
    CHECK_INT(VESSA_QueryInterface(first, TEST_MODULE_IKEY, &found, NULL), VESSA_ERR_ARGUMENT);

    VESSA_Uninit();
    CHECK_INT(VESSA_CreateInstance("a", &first, NULL), VESSA_OK);
    VESSA_Uninit();
    /* Both live on; new ones are refused. */
    CHECK_INT(VESSA_QueryInterface(second, TEST_MODULE_IKEY, &found, NULL), VESSA_OK);
    void* third = kMarker;
    CHECK_INT(VESSA_CreateInstance("a", &third, NULL), VESSA_ERR_NOT_REGISTERED);
    CHECK(third == NULL);
    CHECK_INT(VESSA_DestroyInstance(first, NULL), VESSA_OK);
    CHECK_INT(VESSA_DestroyInstance(second, NULL), VESSA_OK);
    CHECK_INT(VESSA_DestroyInstance(second, NULL), VESSA_ERR_ARGUMENT);
    return CheckResult();
}

/* Each fkey is the name of its module; all are delay-loaded. */
static void FailingCreates(void) {
    static const struct {
        const char* fkey;
        int result;
        int error;
    } rows[] = {{"create_fails", VESSA_FAILED, TEST_MODULE_ERR_CREATE},
                {"create_fails_writing", VESSA_FAILED, TEST_MODULE_ERR_CREATE},
                {"throw_create", VESSA_FAILED, -1},
                {"no_file", VESSA_ERR_NO_MODULE_FILE, 0},
                {"unloadable", VESSA_ERR_MODULE_LOAD, 0},
                {"no_entry", VESSA_ERR_NO_INTERFACE, 0},
                {"entry_null_v2", VESSA_ERR_NO_INTERFACE, 0},
                {"no_create_v1", VESSA_ERR_NO_INTERFACE, 0},
                {"init_fails", VESSA_ERR_MODULE_INIT, 0},
                {"throw_init", VESSA_ERR_MODULE_INIT, 0}};
    for (size_t i = 0; i < LENGTH(rows); ++i) {
        /* The second time as the first. */
        for (int round = 0; round < 2; ++round) {
            void* instance = kMarker;
            int error = 99;
            const int result = VESSA_CreateInstance(rows[i].fkey, &instance, &error);
            if (!CHECK_INT(result, rows[i].result) || !CHECK_INT(error, rows[i].error) ||
                !CHECK(instance == NULL))
                fprintf(stderr, "    fkey %s\n", rows[i].fkey);
        }
    }
}

static void FailingOperations(void) {
    void* instance = NULL;
    void* found = kMarker;
    int error = 99;
    CHECK_INT(VESSA_CreateInstance("query_fails", &instance, NULL), VESSA_OK);
    CHECK_INT(VESSA_QueryInterface(instance, "iface", &found, &error), VESSA_FAILED);
    CHECK_INT(error, TEST_MODULE_ERR_QUERY);
    CHECK(found == NULL);
    CHECK_INT(VESSA_DestroyInstance(instance, NULL), VESSA_OK);

    CHECK_INT(VESSA_CreateInstance("destroy_fails", &instance, NULL), VESSA_OK);
    CHECK_INT(VESSA_DestroyInstance(instance, &error), VESSA_FAILED);
    CHECK_INT(error, TEST_MODULE_ERR_DESTROY);
    CHECK_INT(VESSA_DestroyInstance(instance, &error), VESSA_ERR_ARGUMENT);

    instance = kMarker;
    CHECK_INT(VESSA_CreateInstance("create_null", &instance, &error), VESSA_OK);
    CHECK_INT(error, 0);
    CHECK(instance == NULL);

    void* second = NULL;
    CHECK_INT(VESSA_CreateInstance("same_instance", &instance, NULL), VESSA_OK);
    CHECK_INT(VESSA_CreateInstance("same_instance", &second, &error), VESSA_ERR_INSTANCE_CONFLICT);
    CHECK(second == instance);
    CHECK_INT(VESSA_DestroyInstance(instance, NULL), VESSA_OK);
}

static int Failures(void) {
    CHECK_INT(VESSA_Init(), VESSA_OK);
    FailingCreates();
    FailingOperations();
    VESSA_Uninit();
    return CheckResult();
}

/* A module whose Uninit failed keeps its file name taken: the same name from another folder
 * cannot be loaded any more. Both folders have the module; the list goes from one to the other.
 * The working folder is the world's. */
static int Conflict(void) {
    void* instance = kMarker;
    CHECK_INT(VESSA_Init(), VESSA_OK);
    VESSA_Uninit();
    CHECK_INT(rename("tarnet/a/tarnet.xml", "tarnet/b/tarnet.xml"), 0);
    CHECK_INT(VESSA_Init(), VESSA_OK);
    CHECK_INT(VESSA_CreateInstance("a", &instance, NULL), VESSA_ERR_PLUGIN_CONFLICT);
    CHECK(instance == NULL);
    VESSA_Uninit();
    return CheckResult();
}

/* The attribute "note" of "a" is "abc": what a buffer of that size gets, its other bytes
 * untouched. */
static void CheckAttribute(unsigned int size, int result, unsigned int length, const char* bytes) {
    char value[16];
    unsigned int value_len = size;
    memset(value, '#', sizeof value);
    if (!CHECK_INT(VESSA_QueryConfigAttribute("a", "note", value, &value_len), result) ||
        !CHECK_INT(value_len, length) || !CHECK(memcmp(value, bytes, 8) == 0))
        fprintf(stderr, "    size %u\n", size);
    for (size_t i = 8; i < sizeof value; ++i) CHECK(value[i] == '#');
}

static void CheckText16(const char* fkey, const char* attribute, const char* expected) {
    char value[16];
    unsigned int length = sizeof value;
    memset(value, '#', sizeof value);
    CHECK_INT(VESSA_QueryConfigAttribute(fkey, attribute, value, &length), VESSA_OK);
    CHECK_TEXT(value, expected);
    CHECK_INT(length, (long long)strlen(expected));
}

static void CheckNoAttribute(const char* fkey, const char* attribute) {
    char value[4] = "abc";
    unsigned int length = 77;
    CHECK_INT(VESSA_QueryConfigAttribute(fkey, attribute, value, &length), VESSA_FAILED);
    CHECK_INT(length, 77);
    CHECK_TEXT(value, "abc");
}

static int Attributes(void) {
    CheckNoAttribute("a", "note");
    CHECK_INT(VESSA_Init(), VESSA_OK);
    CheckAttribute(0, VESSA_ERR_BUFFER_TOO_SMALL, 3, "########");
    CheckAttribute(1, VESSA_ERR_BUFFER_TOO_SMALL, 3, "########");
    CheckAttribute(2, VESSA_ERR_BUFFER_TOO_SMALL, 3, "########");
    CheckAttribute(3, VESSA_OK, 3, "abc#####");
    CheckAttribute(4, VESSA_OK, 3, "abc\0####");
    CheckAttribute(5, VESSA_OK, 3, "abc\0####");
    CheckAttribute(16, VESSA_OK, 3, "abc\0####");
    CheckAttribute(0xFFFFFFFFu, VESSA_OK, 3, "abc\0####");
    for (unsigned int size = 0; size < 5; ++size) {
        unsigned int length = size;
        CHECK_INT(VESSA_QueryConfigAttribute("a", "note", NULL, &length), VESSA_OK);
        CHECK_INT(length, 3);
    }
    CheckText16("a", "empty", "");
    CheckText16("a", "text", "\xC3\xA4<&>\"");
    CheckText16("a", "file", "./a" CAPI_MODULE_SUFFIX);
    CheckText16("a", "fkey", "a");
    CheckNoAttribute("a", "delayload");
    CheckNoAttribute("a", "Note");
    CheckNoAttribute("a", "");
    CheckNoAttribute("A", "note");
    CheckNoAttribute("", "note");
    /* In two files: the first in the order of the paths. */
    CheckText16("twice", "from", "first");
    VESSA_Uninit();
    CheckNoAttribute("a", "note");
    return CheckResult();
}

static void CheckFkeys(const char* const* expected, unsigned int expected_count) {
    char** fkeys = NULL;
    unsigned int count = 99;
    CHECK_INT(VESSA_QueryAllFkeys(&fkeys, &count), VESSA_OK);
    CHECK(fkeys != NULL);
    CHECK_INT(count, expected_count);
    for (unsigned int i = 0; i < count && i < expected_count; ++i)
        CHECK_TEXT(fkeys[i], expected[i]);
    CHECK_INT(VESSA_ReleaseAllFkeys(fkeys, count), VESSA_OK);
}

static int Fkeys(void) {
    /* One that two files declare, one that is refused, one whose module does not exist: what
     * is declared counts. */
    static const char* const declared[] = {"a", "twice", "twice", "refused", "no_file"};
    CheckFkeys(NULL, 0);
    CHECK_INT(VESSA_Init(), VESSA_OK);
    CheckFkeys(declared, LENGTH(declared));

    char** fkeys = NULL;
    unsigned int count = 0;
    CHECK_INT(VESSA_QueryAllFkeys(&fkeys, &count), VESSA_OK);
    VESSA_Uninit();
    /* They are the caller's also after the stop. */
    CHECK_TEXT(fkeys[0], "a");
    CHECK_INT(VESSA_ReleaseAllFkeys(fkeys, count), VESSA_OK);
    CheckFkeys(NULL, 0);
    return CheckResult();
}

static int NoRoot(void) {
    void* instance = kMarker;
    CHECK_INT(VESSA_Init(), VESSA_OK);
    CHECK_INT(VESSA_CreateInstance("a", &instance, NULL), VESSA_ERR_NOT_REGISTERED);
    CHECK(instance == NULL);
    CheckFkeys(NULL, 0);
    VESSA_Uninit();
    return CheckResult();
}

int main(int argc, char** argv) {
    const char* const part = argc > 1 ? argv[1] : "";
    if (strcmp(part, "codes") == 0) return Codes();
    if (strcmp(part, "arguments") == 0) return Arguments();
    if (strcmp(part, "life_v1") == 0) return Life("");
    if (strcmp(part, "life_v2") == 0) return Life("a");
    if (strcmp(part, "failures") == 0) return Failures();
    if (strcmp(part, "conflict") == 0) return Conflict();
    if (strcmp(part, "attributes") == 0) return Attributes();
    if (strcmp(part, "fkeys") == 0) return Fkeys();
    if (strcmp(part, "no_root") == 0) return NoRoot();
    fprintf(stderr, "no part \"%s\"\n", part);
    return 2;
}
