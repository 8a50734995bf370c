// Console sessions on their own, with the clock in the test's hand.
#include "sessions.h"

#include <gtest/gtest.h>

namespace kxconsole {
namespace {

TEST(ConsoleSessions, ASessionLivesWhileUsedAndEndsAfterTheIdleTime) {
  Sessions sessions(1800);
  const std::string id = sessions.Open(1000);
  EXPECT_EQ(id.size(), 64u);
  Sessions::Session session;
  ASSERT_TRUE(sessions.Touch(id, 2700, &session));
  EXPECT_EQ(session.csrf.size(), 64u);
  EXPECT_NE(session.csrf, id);
  EXPECT_TRUE(sessions.Touch(id, 4500, &session));  // 1800 s after the last use
  EXPECT_FALSE(sessions.Touch(id, 6301, &session));  // 1801 s idle
  EXPECT_FALSE(sessions.Touch(id, 4600, &session));  // and forgotten
}

TEST(ConsoleSessions, UnknownAndClosedSessionsAreRefused) {
  Sessions sessions(60);
  Sessions::Session session;
  EXPECT_FALSE(sessions.Touch("", 1, &session));
  const std::string id = sessions.Open(1);
  EXPECT_FALSE(sessions.Touch(id.substr(1), 1, &session));
  sessions.Close(id);
  EXPECT_FALSE(sessions.Touch(id, 1, &session));
}

TEST(ConsoleSessions, EverySessionHasItsOwnIdAndToken) {
  Sessions sessions(60);
  const std::string a = sessions.Open(1), b = sessions.Open(1);
  Sessions::Session first, second;
  ASSERT_TRUE(sessions.Touch(a, 1, &first));
  ASSERT_TRUE(sessions.Touch(b, 1, &second));
  EXPECT_NE(a, b);
  EXPECT_NE(first.csrf, second.csrf);
}

}  // namespace
}  // namespace kxconsole
