// The shared object exports exactly its ABI: the two factory functions and
// the utility library, nothing else.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

#include "VRAXSecureWebChannel.h"

namespace {

std::set<std::string> definedDynamicSymbols(const std::string& library) {
    std::set<std::string> names;
    std::string command = "nm -D --defined-only --format=posix '" + library + "' 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return names;
    char line[4096];
    while (fgets(line, sizeof(line), pipe) != nullptr) {
        std::string text(line);
        std::string name = text.substr(0, text.find(' '));
        if (!name.empty()) names.insert(name);
    }
    pclose(pipe);
    return names;
}

TEST(Symbols, ExactlyTheFactoryAndTheUtilityLibraryAreExported) {
    const std::string str = "RKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";
    std::set<std::string> expected = {
        "VRAXSecureWebChannelCreate",
        "VRAXSecureWebChannelDestroy",
        "_Z8log_initPKcPP15logging_state_t",
        "_Z12log_is_readyv",
        "_Z11log_disablev",
        "_Z9print_logPKcz",
        "_Z4warnPKcz",
        "_Z5errorPKcz",
        "_Z3dieiPKcz",
        "_Z18get_command_outputNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEPib",
        "_Z12execute_args" + str + "S6_",
        "_Z21getPartitionFreeSpace" + str,
        "_Z16getFilePartition" + str,
        "_Z8get_archB5cxx11v",
        "_Z16get_window_widthv",
        "_Z12print_dashesv",
        "_Z12print_string" + str,
        "_Z11get_dirname" + str,
        "_Z12get_basename" + str,
        "_Z13folder_create" + str + "j",
        "_Z11folder_copy" + str + "S6_",
        "_Z13folder_remove" + str,
        "_Z9file_copy" + str + "S6_",
        "_Z9file_move" + str + "S6_",
        "_Z11remove_file" + str,
        "_Z14normalize_path" + str,
        "_Z11file_exists" + str,
        "_Z13folder_exists" + str,
        "_Z11path_exists" + str,
        "_Z13get_file_size" + str,
        "_Z10trimSpaces" + str,
        "_Z12split_string" + str + "S6_",
        "_Z12join_stringsRKSt6vectorINSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEESaIS5_EERKS5_",
        "_Z8to_lower" + str,
        "_Z8to_upper" + str,
        "_Z12utf8_to_wide" + str,
        "_Z12wide_to_utf8RKNSt7__cxx1112basic_stringIwSt11char_traitsIwESaIwEEE",
        "_Z11json_escape" + str,
    };
    std::set<std::string> exported = definedDynamicSymbols(WEBCHANNEL_LIBRARY);
    ASSERT_FALSE(exported.empty()) << "nm could not read " << WEBCHANNEL_LIBRARY;
    for (const std::string& name : expected) EXPECT_EQ(exported.count(name), 1u) << "missing: " << name;
    for (const std::string& name : exported) EXPECT_EQ(expected.count(name), 1u) << "unexpected export: " << name;
}

TEST(Symbols, AHostDrivesTheLibraryThroughDlopenAlone) {
    void* library = dlopen(WEBCHANNEL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    auto create = reinterpret_cast<VRAXSecureWebChannelCreateFn>(dlsym(library, "VRAXSecureWebChannelCreate"));
    auto destroy = reinterpret_cast<VRAXSecureWebChannelDestroyFn>(dlsym(library, "VRAXSecureWebChannelDestroy"));
    ASSERT_NE(create, nullptr);
    ASSERT_NE(destroy, nullptr);
    VRAXSecureWebChannel* first = create();
    VRAXSecureWebChannel* second = create();
    EXPECT_EQ(first, second);
    EXPECT_EQ(first->init(2), 0);
    std::string value;
    first->setParam(wc::kParamTimeout, "7", true);
    EXPECT_TRUE(first->getParam(wc::kParamTimeout, value, true));
    EXPECT_EQ(value, "7");
    EXPECT_EQ(first->getNextDownloadedFile(), -1);
    destroy(second);
    destroy(first);
    dlclose(library);
}

}  // namespace
