// TLS: who is let in.
#include "tests/p4rt/server/TestProgram.h"

namespace P4rtTest {
namespace {

// Certificates that openssl makes: of two roots, and of a server and a client that the first of
// them has signed.
class Certificates {
 public:
  Certificates() {
    std::string name = std::filesystem::temp_directory_path() / "ostra-tls-XXXXXX";
    folder_ = ::mkdtemp(name.data());
    const std::string script = "set -e; cd '" + folder_.string() + R"('; exec 2>openssl.log
      new='openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes'
      for name in root stranger; do
        $new -x509 -days 2 -subj /CN=$name -keyout $name.key -out $name.crt
      done
      for name in server client; do
        $new -subj /CN=$name -addext subjectAltName=IP:127.0.0.1 -keyout $name.key -out $name.csr
        openssl x509 -req -days 2 -copy_extensions copy -CA root.crt -CAkey root.key \
          -CAcreateserial -in $name.csr -out $name.crt
      done)";
    EXPECT_EQ(std::system(script.c_str()), 0) << text("openssl.log");
  }
  ~Certificates() { std::filesystem::remove_all(folder_); }
  Certificates(const Certificates&) = delete;
  Certificates& operator=(const Certificates&) = delete;

  [[nodiscard]] std::string file(const std::string& name) const { return folder_ / name; }
  [[nodiscard]] std::string text(const std::string& name) const {
    return CliTest::contentOf(file(name));
  }

 private:
  std::filesystem::path folder_;
};

TEST(TlsTest, LetsInWhoKnowsTheServerAndWithAClientRootWhoIsKnownToIt) {
  const Certificates files;
  const auto standingAt = [](const Program& program, const Controller::Credentials& credentials) {
    Controller controller{program, {1}, "monitor", {}, credentials};
    return controller.claimAndHear();
  };
  const auto tls = [&](const std::string& root, const std::string& own = {}) {
    grpc::SslCredentialsOptions options;
    options.pem_root_certs = files.text(root + ".crt");
    if (!own.empty()) {
      options.pem_private_key = files.text(own + ".key");
      options.pem_cert_chain = files.text(own + ".crt");
    }
    return grpc::SslCredentials(options);
  };
  const std::string notServed = "end 14";
  CliTest::Arguments options{"--tls-cert", files.file("server.crt"), "--tls-key",
                             files.file("server.key")};
  const Program open{options};
  EXPECT_EQ(standingAt(open, tls("root")), "primary 1");
  EXPECT_EQ(standingAt(open, tls("stranger")), notServed);
  EXPECT_EQ(standingAt(open, grpc::InsecureChannelCredentials()), notServed);
  options.insert(options.end(), {"--client-ca", files.file("root.crt")});
  const Program closed{options};
  EXPECT_EQ(standingAt(closed, tls("root", "client")), "primary 1");
  EXPECT_EQ(standingAt(closed, tls("root")), notServed);
  EXPECT_EQ(standingAt(closed, tls("root", "stranger")), notServed);
}

}  // namespace
}  // namespace P4rtTest
