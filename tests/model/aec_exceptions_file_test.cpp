#include "aec_exceptions_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/property_tree/json_parser.hpp>
#include <string>
#include <vector>

#include "aec_config_read.h"
#include "aec_paths.h"
#include "kxtest.h"

namespace {

using Paths = std::vector<std::string>;

class ExceptionsFileTest : public kxtest::SandboxTest {};

TEST_F(ExceptionsFileTest, WhatIsWrittenReadsBackSorted) {
  aec::WriteExceptionsFile({"/usr/bin/b", "/opt/a b", "/usr/bin/a"});
  EXPECT_EQ(aec::ReadExceptionsFile(),
            (Paths{"/opt/a b", "/usr/bin/a", "/usr/bin/b"}));
}

TEST_F(ExceptionsFileTest, AnEmptySetIsWrittenAsAnEmptyTextAndReadsEmpty) {
  aec::WriteExceptionsFile({});
  EXPECT_NE(kxtest::ReadFile(aec::kResourceExceptionPath)
                .find("\"resource_list\": \"\""),
            std::string::npos);
  EXPECT_TRUE(aec::ReadExceptionsFile().empty());
}

TEST_F(ExceptionsFileTest, ReadsInTheFilesOrderIgnoringKeys) {
  kxtest::WriteFile(aec::kResourceExceptionPath,
                    "{\"resource_list\": {\"x\": \"/z\", \"y\": \"/a\"}}");
  EXPECT_EQ(aec::ReadExceptionsFile(), (Paths{"/z", "/a"}));
}

TEST_F(ExceptionsFileTest, AMissingListIsAnError) {
  kxtest::WriteFile(aec::kResourceExceptionPath, "{\"other\": []}");
  EXPECT_THROW(aec::ReadExceptionsFile(), boost::property_tree::ptree_bad_path);
}

TEST_F(ExceptionsFileTest, AFifoIsRefusedWithoutWaiting) {
  ::unlink(aec::kResourceExceptionPath.c_str());
  ASSERT_EQ(::mkfifo(aec::kResourceExceptionPath.c_str(), 0644), 0);
  try {
    aec::ReadExceptionsFile();
    FAIL() << "read a FIFO";
  } catch (const aec::ConfigReadError& e) {
    EXPECT_EQ(e.kind(), aec::ConfigReadError::Kind::kNotRegular);
  }
}

}  // namespace
