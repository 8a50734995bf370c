// The built plug-in exports its entry points under their C++ names, and
// nothing else but the network settings store. The host library exports the
// contract, with one type_info per contract type, and of its internals only
// those its own programs use.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "host/log.h"
#include "host/plugin_api.h"

namespace {

const std::vector<const char*>& EntryPoints() {
  static const std::vector<const char*> names = {
      plugin_symbols::kInit,         plugin_symbols::kExit,
      plugin_symbols::kInfo,         plugin_symbols::kState,
      plugin_symbols::kExec,         plugin_symbols::kPolicies,
      plugin_symbols::kSetPolicies,  plugin_symbols::kImportPolicies,
  };
  return names;
}

TEST(PluginAbi, EveryEntryPointIsFoundByItsMangledName) {
  void* library = dlopen(KX_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  for (const char* name : EntryPoints()) {
    EXPECT_NE(dlsym(library, name), nullptr) << name;
  }
  // The plain C names are not there: the types are part of the contract.
  EXPECT_EQ(dlsym(library, "plugin_init"), nullptr);
  dlclose(library);
}

TEST(PluginAbi, MangledNamesMatchTheDeclarations) {
  // The symbol names the host looks up are the compiler's names of the
  // declared functions.
  Dl_info info;
  void* library = dlopen(KX_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  void* init = dlsym(library, plugin_symbols::kInit);
  ASSERT_NE(init, nullptr);
  ASSERT_NE(dladdr(init, &info), 0);
  EXPECT_STREQ(info.dli_sname, "_Z11plugin_initv");
  dlclose(library);
}

std::string Demangle(const std::string& symbol) {
  int status = 0;
  char* text = abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status);
  std::string name = status == 0 && text != nullptr ? text : symbol;
  std::free(text);
  return name;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

std::set<std::string> ExportedSymbols(const std::string& library) {
  std::set<std::string> symbols;
  FILE* pipe = popen(("nm -D --defined-only '" + library + "'").c_str(), "r");
  if (pipe == nullptr) return symbols;
  char line[4096];
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    std::string text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
      text.pop_back();
    }
    const auto space = text.rfind(' ');
    if (space != std::string::npos) symbols.insert(text.substr(space + 1));
  }
  pclose(pipe);
  return symbols;
}

TEST(PluginAbi, NothingElseOfOursIsExported) {
  const std::set<std::string> exported = ExportedSymbols(KX_PLUGIN_PATH);
  ASSERT_FALSE(exported.empty()) << "nm gave nothing for " << KX_PLUGIN_PATH;
  std::set<std::string> allowed(EntryPoints().begin(), EntryPoints().end());
  for (const char* variable :
       {"g_serverUrl", "g_serverSid", "g_clientSid", "g_domainGUID",
        "g_receiveTimeout", "g_transmissionBlockSize", "g_saveLogCopy",
        "g_takeLogExceed"}) {
    allowed.insert(variable);
  }
  for (const auto& symbol : exported) {
    // The network store's string variables carry the ABI tag in their
    // names ("g_serverUrl[abi:cxx11]").
    std::string name = Demangle(symbol);
    const std::string tag = "[abi:cxx11]";
    if (name.size() > tag.size() &&
        name.compare(name.size() - tag.size(), tag.size(), tag) == 0) {
      name.erase(name.size() - tag.size());
    }
    const bool network_store = StartsWith(name, "NetworkConfig::");
    EXPECT_TRUE(allowed.count(symbol) == 1 || allowed.count(name) == 1 ||
                network_store)
        << "unexpected export " << symbol << " (" << name << ")";
  }
  for (const char* name : EntryPoints()) {
    EXPECT_EQ(exported.count(name), 1u) << name;
  }
}

// The file of the loaded host library (the one this test runs against).
std::string HostLibrary() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&log_message), &info) == 0 ||
      info.dli_fname == nullptr) {
    return "";
  }
  return info.dli_fname;
}

std::set<std::string> DemangledExports(const std::string& library) {
  std::set<std::string> names;
  for (const auto& symbol : ExportedSymbols(library)) {
    names.insert(Demangle(symbol));
  }
  return names;
}

// A plug-in built with hidden visibility references these across the
// library boundary, and catches and compares host types by their type_info.
TEST(HostAbi, TheContractAndItsTypeInfoAreExported) {
  const std::string library = HostLibrary();
  ASSERT_NE(library.find("libkxhost.so"), std::string::npos) << library;
  const std::set<std::string> exported = DemangledExports(library);
  for (const char* name :
       {"typeinfo for IXml", "typeinfo for IPolicy", "typeinfo for PolicyManager",
        "typeinfo for PolicyDbRequestGetter", "vtable for PolicyManager",
        "XMLParserBoost::CreateEmptyXML()", "db_execute(char const*, db_response_t*)",
        "send_message(int, parsed_xml_data_t*)"}) {
    EXPECT_EQ(exported.count(name), 1u) << name;
  }
  bool log = false;
  for (const auto& name : exported) log |= StartsWith(name, "log_message(");
  EXPECT_TRUE(log);
}

// Of the host's own namespace only what host/lib/internal_api.h marks
// leaves the library; the rest (the log sink, the event recorder, table
// statements, directory making) stays inside.
TEST(HostAbi, OnlyTheMarkedInternalsAreExported) {
  const std::set<std::string> exported = DemangledExports(HostLibrary());
  ASSERT_FALSE(exported.empty());
  const std::vector<std::string> marked = {
      "kxhost::Configure(",          "kxhost::Options(",
      "kxhost::SetLogObserver(",     "kxhost::Events(",
      "kxhost::ClearEvents(",        "kxhost::SetStatementObserver(",
      "kxhost::CurrentStatementObserver(", "kxhost::ResetState(",
      "kxhost::EnterSandbox(",       "kxhost::PushRoot(",
      "kxhost::PopRoot(",            "kxhost::MakeRootLayout(",
      "kxhost::InSandbox(",          "kxhost::MakeInstallLayout(",
      "kxhost::SeedFreshInstall(",   "kxhost::SealFreshInstall(",
      "kxhost::SettingsDb(",         "kxhost::CloseSettingsDb(",
      "kxhost::XmlDocument",         "kxhost::ParseXml(",
      "kxhost::TreeOf(",             "kxhost::EscapeMarkup(",
      // What the long-running service shares with kxhost.
      "kxhost::EnterSandboxedRoot(", "kxhost::LoadPlugin(",
      "kxhost::LoadError",           "kxhost::SetEventObserver("};
  int host_names = 0;
  for (std::string name : exported) {
    for (const char* prefix :
         {"typeinfo name for ", "typeinfo for ", "vtable for "}) {
      if (StartsWith(name, prefix)) name.erase(0, std::string(prefix).size());
    }
    if (!StartsWith(name, "kxhost::")) continue;
    ++host_names;
    // Functions returning a std::string carry the ABI tag in their names.
    const std::string tag = "[abi:cxx11]";
    for (auto at = name.find(tag); at != std::string::npos; at = name.find(tag)) {
      name.erase(at, tag.size());
    }
    bool allowed = false;
    for (const auto& prefix : marked) allowed |= StartsWith(name, prefix);
    EXPECT_TRUE(allowed) << "unexpected export " << name;
  }
  EXPECT_GE(host_names, static_cast<int>(marked.size()));
  for (const auto& name : exported) {
    EXPECT_FALSE(StartsWith(name, "kxhost::WriteLogLine(")) << name;
    EXPECT_FALSE(StartsWith(name, "kxhost::RecordEvent(")) << name;
    EXPECT_FALSE(StartsWith(name, "kxhost::MakeDirs(")) << name;
  }
}

}  // namespace
