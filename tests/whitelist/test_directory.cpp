// A real slapd for the suite: started once, on first use, inside the test
// process's private network namespace, stopped when the program ends.
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "host/crypto.h"
#include "host/kxldap.h"
#include "networkconfig.h"
#include "whitelist_env.h"

namespace wltest {
namespace {

constexpr int kPort = 3268;

const char* const kSchema =
    "attributetype ( 1.2.840.113556.1.4.146 NAME 'objectSid'\n"
    "  EQUALITY octetStringMatch\n"
    "  SYNTAX 1.3.6.1.4.1.1466.115.121.1.40 SINGLE-VALUE )\n"
    "attributetype ( 1.2.840.113556.1.4.221 NAME 'sAMAccountName'\n"
    "  EQUALITY caseIgnoreMatch\n"
    "  SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 SINGLE-VALUE )\n"
    "objectclass ( 1.3.6.1.4.1.99999.1 NAME 'testAdUser' SUP top AUXILIARY\n"
    "  MAY ( objectSid $ sAMAccountName ) )\n";

std::string Base64(const std::string& bytes) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  std::size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    const unsigned n = (static_cast<unsigned char>(bytes[i]) << 16) |
                       (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                       static_cast<unsigned char>(bytes[i + 2]);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (i + 1 == bytes.size()) {
    const unsigned n = static_cast<unsigned char>(bytes[i]) << 16;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += "==";
  } else if (i + 2 == bytes.size()) {
    const unsigned n = (static_cast<unsigned char>(bytes[i]) << 16) |
                       (static_cast<unsigned char>(bytes[i + 1]) << 8);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += '=';
  }
  return out;
}

std::string Person(const std::string& name, const char* sid) {
  return "dn: uid=" + name +
         ",ou=people,dc=corp,dc=example\n"
         "objectClass: inetOrgPerson\nobjectClass: testAdUser\n"
         "uid: " +
         name + "\ncn: " + name + "\nsn: " + name +
         "\n"
         "sAMAccountName: " +
         name +
         "\n"
         "objectSid:: " +
         Base64(KXLdap::SidToBinary(sid)) + "\n\n";
}

std::string Group(const std::string& name, const char* sid) {
  return "dn: cn=" + name +
         ",ou=groups,dc=corp,dc=example\n"
         "objectClass: groupOfNames\nobjectClass: testAdUser\n"
         "cn: " +
         name +
         "\nmember: uid=alice,ou=people,dc=corp,dc=example\n"
         "sAMAccountName: " +
         name +
         "\n"
         "objectSid:: " +
         Base64(KXLdap::SidToBinary(sid)) + "\n\n";
}

std::string Entries() {
  std::string ldif =
      "dn: dc=corp,dc=example\nobjectClass: dcObject\nobjectClass: "
      "organization\ndc: corp\no: Corp\n\n"
      "dn: ou=people,dc=corp,dc=example\nobjectClass: organizationalUnit\n"
      "ou: people\n\n"
      "dn: ou=groups,dc=corp,dc=example\nobjectClass: organizationalUnit\n"
      "ou: groups\n\n"
      "dn: cn=kxbind,dc=corp,dc=example\nobjectClass: person\n"
      "cn: kxbind\nsn: kxbind\nuserPassword: " +
      std::string(kBindPassword) + "\n\n";
  ldif += Person("alice", kAliceSid);
  ldif += Person("bob", kBobSid);
  ldif += Person("carol", kCarolSid);
  ldif += Person("dave", kDaveSid);
  ldif += Group("devs", kDevsSid);
  ldif += Group("ops", kOpsSid);
  ldif += Group("qa", kQaSid);
  // An entry with a SID that is neither a user nor a group.
  ldif +=
      "dn: cn=printer,dc=corp,dc=example\nobjectClass: device\n"
      "objectClass: testAdUser\ncn: printer\nsAMAccountName: printer\n"
      "objectSid:: " +
      Base64(KXLdap::SidToBinary(kPrinterSid)) + "\n\n";
  return ldif;
}

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
}

bool PortOpen() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool open =
      connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return open;
}

// Runs a program to its end with output into `log`; its exit status.
int Run(const std::vector<std::string>& words, const std::string& log) {
  std::vector<std::string> copy = words;
  std::vector<char*> argv;
  for (std::string& word : copy) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd >= 0) {
      dup2(fd, STDOUT_FILENO);
      dup2(fd, STDERR_FILENO);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class Directory {
 public:
  std::string Start() {
    if (started_) return "";
    if (!failure_.empty()) return failure_;
    failure_ = DoStart();
    started_ = failure_.empty();
    return failure_;
  }

  void Stop() {
    if (pid_ > 0) {
      // Stopped by the pid it wrote, then reaped as our child.
      pid_t target = pid_;
      std::ifstream in(dir_ + "/slapd.pid");
      in >> target;
      kill(target, SIGTERM);
      int status = 0;
      for (int i = 0; i < 100; ++i) {
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
          pid_ = 0;
          break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
      if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        pid_ = 0;
      }
    }
    if (!dir_.empty()) {
      boost::system::error_code ignored;
      boost::filesystem::remove_all(dir_, ignored);
      dir_.clear();
    }
    started_ = false;
  }

 private:
  std::string DoStart() {
    if (std::string(KX_SLAPD_PATH).empty() ||
        std::string(KX_LDAPADD_PATH).empty()) {
      return "slapd or ldapadd is not installed";
    }
    EnterPrivateNetwork();
    if (PortOpen()) return "port 3268 is already taken in the test network";
    char pattern[] = "/tmp/kxslapd-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return "mkdtemp failed";
    dir_ = pattern;
    boost::filesystem::create_directories(dir_ + "/data");
    WriteText(dir_ + "/testad.schema", kSchema);
    WriteText(dir_ + "/slapd.conf",
              "include /etc/ldap/schema/core.schema\n"
              "include /etc/ldap/schema/cosine.schema\n"
              "include /etc/ldap/schema/inetorgperson.schema\n"
              "include " +
                  dir_ +
                  "/testad.schema\n"
                  "pidfile " +
                  dir_ +
                  "/slapd.pid\n"
                  "argsfile " +
                  dir_ +
                  "/slapd.args\n"
                  "modulepath /usr/lib/ldap\n"
                  "moduleload back_mdb\n"
                  "access to dn.base=\"\" by * read\n"
                  "access to dn.base=\"cn=Subschema\" by * read\n"
                  "access to attrs=userPassword by anonymous auth by * none\n"
                  "access to * by users read by * none\n"
                  "database mdb\n"
                  "maxsize 16777216\n"
                  "suffix \"dc=corp,dc=example\"\n"
                  "rootdn \"cn=admin,dc=corp,dc=example\"\n"
                  "rootpw admin-secret\n"
                  "directory " +
                  dir_ + "/data\n");
    WriteText(dir_ + "/entries.ldif", Entries());

    const std::string log = dir_ + "/slapd.log";
    pid_ = fork();
    if (pid_ < 0) return "fork failed";
    if (pid_ == 0) {
      // Never outlive the tests, even when they crash.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      if (fd >= 0) {
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
      }
      // -d keeps it in the foreground, as our child.
      execl(KX_SLAPD_PATH, "slapd", "-d", "0", "-f",
            (dir_ + "/slapd.conf").c_str(), "-h", "ldap://127.0.0.1:3268/",
            static_cast<char*>(nullptr));
      _exit(127);
    }
    for (int i = 0; i < 200 && !PortOpen(); ++i) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = 0;
        return "slapd ended at start; see its log: " + Slurp(log);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!PortOpen()) return "slapd did not start listening";
    const int rc = Run({KX_LDAPADD_PATH, "-x", "-H", "ldap://127.0.0.1:3268",
                        "-D", "cn=admin,dc=corp,dc=example", "-w",
                        "admin-secret", "-f", dir_ + "/entries.ldif"},
                       dir_ + "/ldapadd.log");
    if (rc != 0) {
      return "ldapadd failed (" + std::to_string(rc) +
             "): " + Slurp(dir_ + "/ldapadd.log");
    }
    return "";
  }

  static std::string Slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  bool started_ = false;
  std::string failure_;
  std::string dir_;
  pid_t pid_ = 0;
};

Directory& TheDirectory() {
  static Directory directory;
  return directory;
}

// Stops slapd after the last test.
class DirectoryEnvironment : public ::testing::Environment {
 public:
  void TearDown() override { TheDirectory().Stop(); }
};

[[maybe_unused]] ::testing::Environment* const g_environment =
    ::testing::AddGlobalTestEnvironment(new DirectoryEnvironment);

}  // namespace

void EnterPrivateNetwork() {
  static bool entered = false;
  if (entered) return;
  if (unshare(CLONE_NEWNET) != 0) {
    throw std::runtime_error(std::string("unshare(CLONE_NEWNET): ") +
                             std::strerror(errno));
  }
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("socket for lo failed");
  ifreq request{};
  std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  const bool up = ioctl(fd, SIOCGIFFLAGS, &request) == 0 &&
                  ((request.ifr_flags |= IFF_UP | IFF_RUNNING),
                   ioctl(fd, SIOCSIFFLAGS, &request) == 0);
  close(fd);
  if (!up) throw std::runtime_error("cannot bring lo up");
  entered = true;
}

std::string StartDirectory() {
  try {
    return TheDirectory().Start();
  } catch (const std::exception& e) {
    return e.what();
  }
}

void StoreDirectoryAccount(const std::string& server,
                           const std::string& password) {
  NetworkConfig::Initialize();
  ASSERT_TRUE(NetworkConfig::settings("KXDomainUser", std::string(kBindDn)));
  ASSERT_TRUE(
      NetworkConfig::settings("KXDomainPassword", encrypt_password(password)));
  ASSERT_TRUE(NetworkConfig::SetActiveLDS(server));
}

}  // namespace wltest
