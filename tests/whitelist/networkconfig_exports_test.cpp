// The network settings store is part of what libaec.so shows to the host and
// to other modules of the process; the whitelist internals are not.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

namespace {

class LibraryExportsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    library_ = dlopen(KX_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, library_) << dlerror();
  }
  void TearDown() override {
    if (library_ != nullptr) dlclose(library_);
  }
  bool Exports(const std::string& symbol) {
    return dlsym(library_, symbol.c_str()) != nullptr;
  }

  void* library_ = nullptr;
};

TEST_F(LibraryExportsTest, TheProcessWideVariablesAreExportedByName) {
  for (const char* name : {"g_receiveTimeout", "g_transmissionBlockSize",
                           "g_saveLogCopy", "g_takeLogExceed"}) {
    EXPECT_TRUE(Exports(name)) << name;
  }
  // std::string variables: their C++ names carry GCC's ABI tag.
  for (const char* name :
       {"_Z11g_serverUrlB5cxx11", "_Z11g_serverSidB5cxx11",
        "_Z11g_clientSidB5cxx11", "_Z12g_domainGUIDB5cxx11"}) {
    EXPECT_TRUE(Exports(name)) << name;
  }
}

TEST_F(LibraryExportsTest, TheStoreIsExportedUnderItsCppNames) {
  for (const char* name : {
           "_ZN13NetworkConfig10InitializeEv",
           "_ZN13NetworkConfig8IsEnableEv",
           "_ZN13NetworkConfig13GetDomainUserB5cxx11Ev",
           "_ZN13NetworkConfig12SetActiveLDSERKNSt7__cxx1112basic_stringIcSt11"
           "char_traitsIcESaIcEEE",
           "_ZN13NetworkConfig8settingsERKNSt7__cxx1112basic_stringIcSt11char_"
           "traitsIcESaIcEEERKb",
           "_ZN13NetworkConfig17setReceiveTimeoutEj",
           "_ZN13NetworkConfig26setTransmissionBlockSizeKbEm",
       }) {
    EXPECT_TRUE(Exports(name)) << name;
  }
}

TEST_F(LibraryExportsTest, TheWhitelistInternalsStayInside) {
  EXPECT_FALSE(Exports("_ZN12AECWhiteList10IsEnableCCEv"));
  EXPECT_FALSE(Exports("_ZN12AECWhiteList9DisableCCEv"));
}

}  // namespace
