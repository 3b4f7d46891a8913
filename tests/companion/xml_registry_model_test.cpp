// The suite library's in-memory registry as a model: handles, keys named without regard to case, and
// the registry's answers for each call. Portable: built natively under the sanitizers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "xml_registry_model.h"

namespace {

using namespace xmlreg;

class XmlRegistryModelTest : public ::testing::Test {
protected:
    // A key made below the current user's root, opened with every right.
    Handle Make(const char* path, const char* keyClass = nullptr) {
        Handle key = 0;
        uint32_t disposition = 0;
        EXPECT_EQ(registry.CreateKey(kCurrentUser, path, keyClass, 0xF003F, &key, &disposition), kOk) << path;
        return key;
    }
    void Set(Handle key, const char* name, uint32_t type, const std::string& bytes) {
        ASSERT_EQ(registry.SetValue(key, name, type, reinterpret_cast<const uint8_t*>(bytes.data()),
                                    static_cast<uint32_t>(bytes.size())),
                  kOk);
    }
    Registry registry;
};

TEST_F(XmlRegistryModelTest, TheThreeHiveHandlesAreRootsAndNoOtherPredefinedKeyIs) {
    for (Handle hive : {kCurrentUser, kLocalMachine, kUsers}) {
        Handle key = 0;
        EXPECT_EQ(registry.CreateKey(hive, "Software\\Verdane", nullptr, 0xF003F, &key, nullptr), kOk);
        EXPECT_EQ(registry.CloseKey(key), kOk);
        EXPECT_EQ(registry.OpenKey(hive, "software", 0x20019, &key), kOk);
        EXPECT_EQ(registry.CloseKey(key), kOk);
        EXPECT_EQ(registry.CloseKey(hive), kOk);  // a hive handle closes without effect
    }
    EXPECT_EQ(registry.Root(0).subkeys.size(), 1u);
    EXPECT_EQ(registry.Root(2).subkeys.size(), 1u);
    Handle key = 7;
    EXPECT_EQ(registry.OpenKey(kHiveHandleBase, "Software", 0x20019, &key), kBadHandle);  // HKEY_CLASSES_ROOT
    EXPECT_EQ(key, 0u);
    EXPECT_EQ(registry.OpenKey(kHiveHandleBase + 5, nullptr, 0x20019, &key), kBadHandle);
    EXPECT_EQ(registry.OpenKey(0, "Software", 0x20019, &key), kBadHandle);
    EXPECT_EQ(registry.CloseKey(0x1234), kBadHandle);
}

TEST_F(XmlRegistryModelTest, OpeningAMissingKeyGivesNotFoundAndCreatingMakesEveryMissingLevel) {
    Handle key = 5;
    EXPECT_EQ(registry.OpenKey(kCurrentUser, "Software\\Verdane", 0x20019, &key), kNotFound);
    EXPECT_EQ(key, 0u);
    uint32_t disposition = 0;
    ASSERT_EQ(registry.CreateKey(kCurrentUser, "Software\\Verdane\\Network Protocols", "DXS Application Data",
                                 0x20006, &key, &disposition),
              kOk);
    EXPECT_EQ(disposition, 1u);  // made
    EXPECT_NE(key, 0u);
    Handle again = 0;
    ASSERT_EQ(registry.CreateKey(kCurrentUser, "SOFTWARE\\verdane\\network protocols", "other", 0x20006, &again,
                                 &disposition),
              kOk);
    EXPECT_EQ(disposition, 2u);  // opened
    EXPECT_NE(again, key);       // a handle of its own
    // The class goes to the key that the call made last, and an existing key keeps its own.
    const Key& made = *registry.Root(0).SubkeyAt(0)->SubkeyAt(0)->SubkeyAt(0);
    EXPECT_EQ(made.name, "Network Protocols");
    EXPECT_EQ(made.keyClass, "DXS Application Data");
    EXPECT_EQ(registry.Root(0).SubkeyAt(0)->keyClass, "");
    EXPECT_EQ(registry.CreateKey(kCurrentUser, "x", nullptr, 0, nullptr, nullptr), kBadParameter);
    EXPECT_EQ(registry.OpenKey(kCurrentUser, "x", 0, nullptr), kBadParameter);
}

TEST_F(XmlRegistryModelTest, NamesAreComparedWithoutRegardToCaseAndKeepTheirFirstSpelling) {
    Handle key = Make("Software\\Verdane");
    Set(key, "Count", kTypeDword, std::string("\x02\0\0\0", 4));
    Set(key, "COUNT", kTypeDword, std::string("\x03\0\0\0", 4));
    Handle opened = 0;
    ASSERT_EQ(registry.OpenKey(kCurrentUser, "sOfTwArE\\VERDANE", 0x20019, &opened), kOk);
    uint32_t type = 0;
    uint8_t data[8] = {};
    uint32_t size = sizeof data;
    ASSERT_EQ(registry.QueryValue(opened, "count", false, &type, data, &size), kOk);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(data[0], 3);
    char name[16] = {};
    uint32_t nameSize = sizeof name;
    ASSERT_EQ(registry.EnumValue(opened, 0, name, &nameSize, false, nullptr, nullptr, nullptr), kOk);
    EXPECT_STREQ(name, "Count");
    EXPECT_EQ(nameSize, 5u);
    nameSize = sizeof name;
    ASSERT_EQ(registry.EnumKey(kCurrentUser, 0, name, &nameSize, false, nullptr, nullptr, nullptr), kOk);
    EXPECT_STREQ(name, "Software");
}

TEST_F(XmlRegistryModelTest, QueryValueFollowsTheRulesForNullDataAndSizes) {
    Handle key = Make("k");
    Set(key, "Text", kTypeString, std::string("abc\0", 4));
    uint32_t type = 99;
    uint32_t size = 0;
    // No data: the size alone.
    ASSERT_EQ(registry.QueryValue(key, "Text", false, &type, nullptr, &size), kOk);
    EXPECT_EQ(type, kTypeString);
    EXPECT_EQ(size, 4u);
    // Neither data nor size: whether it is there, and its type.
    type = 0;
    EXPECT_EQ(registry.QueryValue(key, "Text", false, &type, nullptr, nullptr), kOk);
    EXPECT_EQ(type, kTypeString);
    // Data without a size.
    uint8_t data[8];
    EXPECT_EQ(registry.QueryValue(key, "Text", false, &type, data, nullptr), kBadParameter);
    // Too small: 234, the size needed, the type, and the buffer untouched.
    std::memset(data, 'x', sizeof data);
    size = 3;
    type = 0;
    EXPECT_EQ(registry.QueryValue(key, "Text", false, &type, data, &size), kMoreData);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(type, kTypeString);
    EXPECT_EQ(data[0], 'x');
    // Exact.
    size = 4;
    ASSERT_EQ(registry.QueryValue(key, "Text", false, nullptr, data, &size), kOk);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), 4), std::string("abc\0", 4));
    EXPECT_EQ(data[4], 'x');
    // Reserved must be null; a missing value is not found, with type none and the size left alone.
    EXPECT_EQ(registry.QueryValue(key, "Text", true, &type, data, &size), kBadParameter);
    type = 42;
    size = 8;
    EXPECT_EQ(registry.QueryValue(key, "Missing", false, &type, data, &size), kNotFound);
    EXPECT_EQ(type, kTypeNone);
    EXPECT_EQ(size, 8u);
}

TEST_F(XmlRegistryModelTest, TextWithoutItsTerminatorGainsOneUncountedWhereThereIsRoom) {
    Handle key = Make("k");
    Set(key, "Bare", kTypeString, "abc");
    Set(key, "Blob", kTypeBinary, "abc");
    uint8_t data[8];
    std::memset(data, 'x', sizeof data);
    uint32_t size = sizeof data;
    ASSERT_EQ(registry.QueryValue(key, "Bare", false, nullptr, data, &size), kOk);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(data[3], 0);
    std::memset(data, 'x', sizeof data);
    size = 3;
    ASSERT_EQ(registry.QueryValue(key, "Bare", false, nullptr, data, &size), kOk);
    EXPECT_EQ(data[3], 'x');  // no room: nothing beyond the size
    std::memset(data, 'x', sizeof data);
    size = sizeof data;
    ASSERT_EQ(registry.QueryValue(key, "Blob", false, nullptr, data, &size), kOk);
    EXPECT_EQ(data[3], 'x');  // not a text
}

TEST_F(XmlRegistryModelTest, TheValueWithoutANameIsTheDefaultValue) {
    Handle key = Make("k");
    Set(key, nullptr, kTypeString, std::string("d\0", 2));
    uint8_t data[4] = {};
    uint32_t size = sizeof data;
    ASSERT_EQ(registry.QueryValue(key, "", false, nullptr, data, &size), kOk);
    EXPECT_EQ(data[0], 'd');
    EXPECT_EQ(registry.DeleteValue(key, nullptr), kOk);
    EXPECT_EQ(registry.QueryValue(key, nullptr, false, nullptr, nullptr, &size), kNotFound);
}

TEST_F(XmlRegistryModelTest, ValuesEnumerateInNameOrderUntilNoMoreItems) {
    Handle key = Make("k");
    Set(key, "beta", kTypeDword, std::string("\x01\0\0\0", 4));
    Set(key, "Alpha", kTypeBinary, "xyz");
    Set(key, "GAMMA", kTypeString, std::string("g\0", 2));
    std::vector<std::string> names;
    for (uint32_t index = 0;; ++index) {
        char name[32];
        uint32_t nameSize = sizeof name;
        uint32_t type = 0;
        uint8_t data[16];
        uint32_t size = sizeof data;
        int32_t code = registry.EnumValue(key, index, name, &nameSize, false, &type, data, &size);
        if (code == kNoMoreItems) break;
        ASSERT_EQ(code, kOk);
        EXPECT_EQ(nameSize, std::strlen(name));
        names.push_back(name);
        ASSERT_LT(index, 10u);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Alpha", "beta", "GAMMA"}));
}

TEST_F(XmlRegistryModelTest, EnumValueSaysMoreDataForAShortNameOrDataBuffer) {
    Handle key = Make("k");
    Set(key, "Name", kTypeBinary, "12345");
    char name[8];
    std::memset(name, 'x', sizeof name);
    uint32_t nameSize = 4;  // no room for the terminator
    EXPECT_EQ(registry.EnumValue(key, 0, name, &nameSize, false, nullptr, nullptr, nullptr), kMoreData);
    EXPECT_EQ(nameSize, 4u);
    EXPECT_EQ(name[0], 'x');
    nameSize = 5;
    uint8_t data[8];
    std::memset(data, 'x', sizeof data);
    uint32_t size = 4;
    uint32_t type = 0;
    EXPECT_EQ(registry.EnumValue(key, 0, name, &nameSize, false, &type, data, &size), kMoreData);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(type, kTypeBinary);
    EXPECT_EQ(data[0], 'x');
    nameSize = 5;
    size = 5;
    EXPECT_EQ(registry.EnumValue(key, 0, name, &nameSize, false, &type, data, &size), kOk);
    EXPECT_STREQ(name, "Name");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), 5), "12345");
    EXPECT_EQ(registry.EnumValue(key, 0, nullptr, &nameSize, false, nullptr, nullptr, nullptr), kBadParameter);
    EXPECT_EQ(registry.EnumValue(key, 0, name, nullptr, false, nullptr, nullptr, nullptr), kBadParameter);
    EXPECT_EQ(registry.EnumValue(key, 0, name, &nameSize, true, nullptr, nullptr, nullptr), kBadParameter);
    EXPECT_EQ(registry.EnumValue(key, 0, name, &nameSize, false, nullptr, data, nullptr), kBadParameter);
    EXPECT_EQ(registry.EnumValue(key, 1, name, &nameSize, false, nullptr, nullptr, nullptr), kNoMoreItems);
}

TEST_F(XmlRegistryModelTest, SubkeysEnumerateInNameOrderWithAnExactFitAndTheirClass) {
    Make("Root\\zeta");
    Make("Root\\Alpha", "cls");
    Make("Root\\beta");
    Handle root = 0;
    ASSERT_EQ(registry.OpenKey(kCurrentUser, "Root", 0x20019, &root), kOk);
    std::vector<std::string> names;
    for (uint32_t index = 0;; ++index) {
        char name[8];
        uint32_t nameSize = sizeof name;
        int32_t code = registry.EnumKey(root, index, name, &nameSize, false, nullptr, nullptr, nullptr);
        if (code == kNoMoreItems) break;
        ASSERT_EQ(code, kOk);
        names.push_back(name);
        ASSERT_LT(index, 10u);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Alpha", "beta", "zeta"}));
    char name[8];
    std::memset(name, 'x', sizeof name);
    uint32_t nameSize = 5;  // "Alpha" without room for its terminator
    EXPECT_EQ(registry.EnumKey(root, 0, name, &nameSize, false, nullptr, nullptr, nullptr), kMoreData);
    EXPECT_EQ(name[0], 'x');
    nameSize = 6;
    char keyClass[4];
    uint32_t classSize = 3;
    EXPECT_EQ(registry.EnumKey(root, 0, name, &nameSize, false, keyClass, &classSize, nullptr), kMoreData);
    classSize = 4;
    uint64_t time = 0;
    ASSERT_EQ(registry.EnumKey(root, 0, name, &nameSize, false, keyClass, &classSize, &time), kOk);
    EXPECT_STREQ(name, "Alpha");
    EXPECT_EQ(nameSize, 5u);
    EXPECT_STREQ(keyClass, "cls");
    EXPECT_EQ(classSize, 3u);
    EXPECT_GT(time, 116444736000000000ull);  // after 1970
    EXPECT_EQ(registry.EnumKey(root, 0, name, &nameSize, true, nullptr, nullptr, nullptr), kBadParameter);
    EXPECT_EQ(registry.EnumKey(root, 0, nullptr, &nameSize, false, nullptr, nullptr, nullptr), kBadParameter);
}

TEST_F(XmlRegistryModelTest, AKeyWithSubkeysCannotBeDeletedAndAHandleOfADeletedKeySaysSo) {
    Handle leaf = Make("Software\\Verdane\\Leaf");
    Handle parent = Make("Software\\Verdane");
    EXPECT_EQ(registry.DeleteKey(kCurrentUser, "Software\\Verdane"), kAccessDenied);
    EXPECT_EQ(registry.DeleteKey(kCurrentUser, "Software\\Verdane\\Missing"), kNotFound);
    EXPECT_EQ(registry.DeleteKey(kCurrentUser, nullptr), kBadParameter);
    EXPECT_EQ(registry.DeleteKey(kCurrentUser, ""), kAccessDenied);  // the root itself
    EXPECT_EQ(registry.DeleteKey(parent, "LEAF"), kOk);
    Set(parent, "v", kTypeBinary, "1");
    EXPECT_EQ(registry.SetValue(leaf, "v", kTypeBinary, nullptr, 0), kKeyDeleted);
    EXPECT_EQ(registry.QueryValue(leaf, "v", false, nullptr, nullptr, nullptr), kKeyDeleted);
    Handle below = 0;
    EXPECT_EQ(registry.CreateKey(leaf, "x", nullptr, 0xF003F, &below, nullptr), kKeyDeleted);
    EXPECT_EQ(registry.CloseKey(leaf), kOk);
    EXPECT_EQ(registry.CloseKey(leaf), kBadHandle);
    EXPECT_EQ(registry.DeleteKey(kCurrentUser, "Software\\Verdane"), kOk);
    EXPECT_EQ(registry.OpenKey(kCurrentUser, "Software\\Verdane", 0x20019, &below), kNotFound);
}

TEST_F(XmlRegistryModelTest, DeleteValueRemovesOnlyANamedValueThatIsThere) {
    Handle key = Make("k");
    Set(key, "a", kTypeBinary, "1");
    EXPECT_EQ(registry.DeleteValue(key, "b"), kNotFound);
    EXPECT_EQ(registry.DeleteValue(key, "A"), kOk);
    EXPECT_EQ(registry.DeleteValue(key, "a"), kNotFound);
}

TEST_F(XmlRegistryModelTest, SetValueKeepsAnyTypeAndBytesAndRefusesMissingData) {
    Handle key = Make("k");
    EXPECT_EQ(registry.SetValue(key, "v", kTypeBinary, nullptr, 3), kNoAccess);
    EXPECT_EQ(registry.SetValue(key, "empty", kTypeString, nullptr, 0), kOk);
    Set(key, "odd", 0xFFFFFFF0u, std::string("\0\xff", 2));
    uint32_t type = 0;
    uint8_t data[4] = {};
    uint32_t size = sizeof data;
    ASSERT_EQ(registry.QueryValue(key, "odd", false, &type, data, &size), kOk);
    EXPECT_EQ(type, 0xFFFFFFF0u);
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(data[1], 0xff);
    size = sizeof data;
    ASSERT_EQ(registry.QueryValue(key, "empty", false, &type, data, &size), kOk);
    EXPECT_EQ(size, 0u);
}

TEST_F(XmlRegistryModelTest, EachCallNeedsItsRightOnTheHandle) {
    Make("k");
    Handle readOnly = 0;
    Handle writeOnly = 0;
    Handle none = 0;
    ASSERT_EQ(registry.OpenKey(kCurrentUser, "k", 0x20019, &readOnly), kOk);   // KEY_READ
    ASSERT_EQ(registry.OpenKey(kCurrentUser, "k", 0x20006, &writeOnly), kOk);  // KEY_WRITE
    ASSERT_EQ(registry.OpenKey(kCurrentUser, "k", 0, &none), kOk);
    EXPECT_EQ(registry.SetValue(readOnly, "v", kTypeBinary, nullptr, 0), kAccessDenied);
    EXPECT_EQ(registry.SetValue(writeOnly, "v", kTypeBinary, nullptr, 0), kOk);
    EXPECT_EQ(registry.DeleteValue(readOnly, "v"), kAccessDenied);
    EXPECT_EQ(registry.QueryValue(writeOnly, "v", false, nullptr, nullptr, nullptr), kAccessDenied);
    EXPECT_EQ(registry.QueryValue(readOnly, "v", false, nullptr, nullptr, nullptr), kOk);
    char name[8];
    uint32_t nameSize = sizeof name;
    EXPECT_EQ(registry.EnumKey(writeOnly, 0, name, &nameSize, false, nullptr, nullptr, nullptr), kAccessDenied);
    EXPECT_EQ(registry.EnumValue(none, 0, name, &nameSize, false, nullptr, nullptr, nullptr), kAccessDenied);
    EXPECT_EQ(registry.QueryInfo(none, nullptr, nullptr, nullptr), kAccessDenied);
    Handle child = 0;
    EXPECT_EQ(registry.CreateKey(readOnly, "child", nullptr, 0xF003F, &child, nullptr), kAccessDenied);
    EXPECT_EQ(registry.CreateKey(writeOnly, "child", nullptr, 0xF003F, &child, nullptr), kOk);
    // Opening an existing key through a handle without the right to make one is fine.
    EXPECT_EQ(registry.CreateKey(readOnly, "child", nullptr, 0x20019, &child, nullptr), kOk);
    // Generic rights count as the registry maps them.
    Handle generic = 0;
    ASSERT_EQ(registry.OpenKey(kCurrentUser, "k", 0x80000000u, &generic), kOk);  // GENERIC_READ
    EXPECT_EQ(registry.QueryValue(generic, "v", false, nullptr, nullptr, nullptr), kOk);
    EXPECT_EQ(registry.SetValue(generic, "v", kTypeBinary, nullptr, 0), kAccessDenied);
}

TEST_F(XmlRegistryModelTest, QueryInfoCountsSubkeysAndValuesWithTheirLongestNames) {
    Handle key = Make("k", "The class");
    Make("k\\a");
    Make("k\\longer", "c12");
    Set(key, "x", kTypeBinary, "12345678");
    Set(key, "longest", kTypeBinary, "1");
    KeyInfo info;
    char keyClass[16];
    uint32_t classSize = sizeof keyClass;
    ASSERT_EQ(registry.QueryInfo(key, keyClass, &classSize, &info), kOk);
    EXPECT_STREQ(keyClass, "The class");
    EXPECT_EQ(classSize, 9u);
    EXPECT_EQ(info.subKeys, 2u);
    EXPECT_EQ(info.maxSubKeyLength, 6u);
    EXPECT_EQ(info.maxClassLength, 3u);
    EXPECT_EQ(info.values, 2u);
    EXPECT_EQ(info.maxValueNameLength, 7u);
    EXPECT_EQ(info.maxValueLength, 8u);
    classSize = 9;
    std::memset(keyClass, 'x', sizeof keyClass);
    EXPECT_EQ(registry.QueryInfo(key, keyClass, &classSize, &info), kMoreData);
    EXPECT_EQ(classSize, 9u);
    EXPECT_EQ(keyClass[0], 'x');
    EXPECT_EQ(info.subKeys, 2u);
    EXPECT_EQ(registry.QueryInfo(key, keyClass, nullptr, &info), kBadParameter);
}

TEST_F(XmlRegistryModelTest, PathsTolerateRepeatedSeparatorsButNotALeadingOne) {
    Handle key = 0;
    EXPECT_EQ(registry.CreateKey(kCurrentUser, "\\Software", nullptr, 0xF003F, &key, nullptr), kBadPath);
    EXPECT_EQ(registry.CreateKey(kCurrentUser, "Software\\\\Verdane\\", nullptr, 0xF003F, &key, nullptr), kOk);
    EXPECT_EQ(registry.OpenKey(kCurrentUser, "Software\\Verdane", 0x20019, &key), kOk);
    Handle refused = 1;
    EXPECT_EQ(registry.OpenKey(kCurrentUser, "\\Software", 0x20019, &refused), kBadPath);
    EXPECT_EQ(refused, 0u);
    // No sub-path, or an empty one: a new handle of the same key.
    Handle same = 0;
    EXPECT_EQ(registry.OpenKey(key, nullptr, 0x20019, &same), kOk);
    EXPECT_NE(same, key);
    Handle again = 0;
    EXPECT_EQ(registry.OpenKey(key, "", 0x20019, &again), kOk);
    EXPECT_NE(again, same);
    char name[16];
    uint32_t nameSize = sizeof name;
    EXPECT_EQ(registry.EnumKey(kCurrentUser, 0, name, &nameSize, false, nullptr, nullptr, nullptr), kOk);
    EXPECT_STREQ(name, "Software");
}

TEST_F(XmlRegistryModelTest, KeysGoAsDeepAsTheRegistryAllowsAndNoDeeper) {
    std::string path = "k";
    for (size_t depth = 2; depth <= kMaxDepth; ++depth) path += "\\k";
    Handle key = 0;
    ASSERT_EQ(registry.CreateKey(kCurrentUser, path.c_str(), nullptr, 0xF003F, &key, nullptr), kOk);
    EXPECT_EQ(registry.CreateKey(key, "one more", nullptr, 0xF003F, &key, nullptr), kBadParameter);
    std::string longName(kMaxKeyName + 1, 'n');
    EXPECT_EQ(registry.CreateKey(kCurrentUser, longName.c_str(), nullptr, 0xF003F, &key, nullptr), kBadParameter);
    longName.pop_back();
    EXPECT_EQ(registry.CreateKey(kCurrentUser, longName.c_str(), nullptr, 0xF003F, &key, nullptr), kOk);
}

TEST_F(XmlRegistryModelTest, SameContentComparesNamesClassesTypesAndBytes) {
    Registry other;
    Handle a = Make("k", "c");
    Handle b = 0;
    ASSERT_EQ(other.CreateKey(kCurrentUser, "k", "c", 0xF003F, &b, nullptr), kOk);
    Set(a, "v", kTypeBinary, "1");
    ASSERT_EQ(other.SetValue(b, "v", kTypeBinary, reinterpret_cast<const uint8_t*>("1"), 1), kOk);
    EXPECT_TRUE(SameContent(registry, other));
    ASSERT_EQ(other.SetValue(b, "v", kTypeString, reinterpret_cast<const uint8_t*>("1"), 1), kOk);
    EXPECT_FALSE(SameContent(registry, other));
    ASSERT_EQ(other.SetValue(b, "v", kTypeBinary, reinterpret_cast<const uint8_t*>("2"), 1), kOk);
    EXPECT_FALSE(SameContent(registry, other));
    ASSERT_EQ(other.SetValue(b, "v", kTypeBinary, reinterpret_cast<const uint8_t*>("1"), 1), kOk);
    EXPECT_TRUE(SameContent(registry, other));
    ASSERT_EQ(other.CreateKey(kUsers, "u", nullptr, 0xF003F, &b, nullptr), kOk);
    EXPECT_FALSE(SameContent(registry, other));
}

TEST_F(XmlRegistryModelTest, ClosingAHandleForgetsIt) {
    Handle key = Make("k");
    EXPECT_EQ(registry.OpenHandles(), 1u);
    EXPECT_EQ(registry.CloseKey(key), kOk);
    EXPECT_EQ(registry.OpenHandles(), 0u);
    EXPECT_EQ(registry.QueryValue(key, "v", false, nullptr, nullptr, nullptr), kBadHandle);
}

}  // namespace
