// The enciphered directory password.
#include "host/crypto.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <stdexcept>
#include <string>

#include "kxtest.h"

namespace {

class Crypto : public kxtest::SandboxTest {};

constexpr const char* kKeyFile = "/opt/korvex/etc/kxhost/host.key";

TEST_F(Crypto, RoundTrip) {
  const std::string stored = encrypt_password("S3cret pass\xc3\xa4!");
  EXPECT_EQ(stored.compare(0, 4, "kx1:"), 0) << stored;
  EXPECT_EQ(stored.find("S3cret"), std::string::npos);
  EXPECT_EQ(decrypt_password(stored), "S3cret pass\xc3\xa4!");
}

TEST_F(Crypto, EmptyPasswordRoundTrips) {
  EXPECT_EQ(decrypt_password(encrypt_password("")), "");
}

TEST_F(Crypto, EachEncryptionUsesAFreshNonce) {
  EXPECT_NE(encrypt_password("same"), encrypt_password("same"));
}

TEST_F(Crypto, KeyIsMadeOnFirstUseWithOwnerOnlyAccess) {
  EXPECT_FALSE(kxtest::Exists(kKeyFile));
  encrypt_password("x");
  struct stat info;
  ASSERT_EQ(stat(kKeyFile, &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(info.st_size, 32);
  // The second use reads the same key.
  const std::string key = kxtest::ReadFile(kKeyFile);
  encrypt_password("y");
  EXPECT_EQ(kxtest::ReadFile(kKeyFile), key);
}

TEST_F(Crypto, WrongKeyIsAnError) {
  const std::string stored = encrypt_password("secret");
  kxtest::WriteFile(kKeyFile, std::string(32, 'k'), 0600);
  EXPECT_THROW(decrypt_password(stored), std::runtime_error);
}

TEST_F(Crypto, DamagedTextIsAnError) {
  std::string stored = encrypt_password("secret");
  stored[stored.size() / 2] = stored[stored.size() / 2] == 'A' ? 'B' : 'A';
  EXPECT_THROW(decrypt_password(stored), std::runtime_error);
  EXPECT_THROW(decrypt_password("kx1:not base64!"), std::runtime_error);
  EXPECT_THROW(decrypt_password("kx1:QUJD"), std::runtime_error);
}

TEST_F(Crypto, TextWithoutThePrefixIsReturnedUnchanged) {
  EXPECT_EQ(decrypt_password("plain old password"), "plain old password");
  EXPECT_EQ(decrypt_password(""), "");
  EXPECT_FALSE(kxtest::Exists(kKeyFile));
}

TEST_F(Crypto, KeyReadableByOthersIsRefused) {
  const std::string stored = encrypt_password("secret");
  ASSERT_EQ(chmod(kKeyFile, 0640), 0);
  EXPECT_THROW(decrypt_password(stored), std::runtime_error);
  EXPECT_THROW(encrypt_password("again"), std::runtime_error);
}

TEST_F(Crypto, MissingKeyOnDecryptIsAnError) {
  const std::string stored = encrypt_password("secret");
  ASSERT_EQ(unlink(kKeyFile), 0);
  EXPECT_THROW(decrypt_password(stored), std::runtime_error);
}

TEST_F(Crypto, ShortKeyFileIsRefused) {
  kxtest::WriteFile(kKeyFile, "short", 0600);
  EXPECT_THROW(encrypt_password("x"), std::runtime_error);
}

}  // namespace
