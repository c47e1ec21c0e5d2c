// An authority of the tests' own, and certificates of it that are good and bad in every way.
#ifndef TSL_TESTS_SUPPORT_CERTIFICATES_H
#define TSL_TESTS_SUPPORT_CERTIFICATES_H

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

#include "support/ScratchFile.h"

namespace Tessel::Testing {

// Made by openssl(1) in a directory of their own, which goes with the object. All are for the key
// server.key and for the address 127.0.0.1, but for what their names say.
class Certificates {
 public:
  Certificates() {
    std::ofstream(path("ca.cnf")) << s_configuration;
    std::ofstream(path("make")) << s_script;
    const std::string make =
        "cd " + m_files.directory() + " && sh -e ./make >log 2>&1 || { cat log; exit 1; }";
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe): one thread; the words are ours
    if (std::system(make.c_str()) != 0) throw std::runtime_error("no certificates");
  }

  // Of "ca.pem" and "crl.pem" (of the authority), "other.pem" (another authority), "server.key",
  // "client.pem" and "client.key", and "good.pem", "wrong-name.pem", "expired.pem",
  // "self-signed.pem" and "revoked.pem".
  [[nodiscard]] std::string path(const std::string& name) const {
    return m_files.directory() + "/" + name;
  }
  // SHA-1, with colons.
  [[nodiscard]] std::string fingerprint(const std::string& name) const {
    std::string text;
    std::ifstream stream(path(name + ".pem.sha1"));
    std::getline(stream, text);  // "sha1 Fingerprint=..."
    return text.substr(text.find('=') + 1);
  }

 private:
  static constexpr char s_configuration[] = R"([ca]
default_ca = own
[own]
dir = .
database = index.txt
serial = serial
new_certs_dir = .
default_md = sha256
default_days = 2
default_crl_days = 2
unique_subject = no
policy = any
[any]
organizationName = optional
commonName = supplied
[here]
subjectAltName = IP:127.0.0.1,DNS:localhost
[elsewhere]
subjectAltName = DNS:db.example.com
)";
  static constexpr char s_script[] = R"(
for key in ca server client; do openssl ecparam -name prime256v1 -genkey -noout -out $key.key; done
openssl req -x509 -key ca.key -days 2 -subj '/CN=Test authority' -out ca.pem
openssl req -x509 -key client.key -days 2 -subj '/CN=Other authority' -out other.pem
openssl req -x509 -key server.key -days 2 -subj '/CN=self' -addext subjectAltName=IP:127.0.0.1 -out self-signed.pem
openssl req -new -key server.key -subj '/O=Test/CN=db server' -out server.csr
openssl req -new -key client.key -subj '/CN=client' -out client.csr
touch index.txt
echo 01 >serial
issue() { openssl ca -batch -notext -config ca.cnf -cert ca.pem -keyfile ca.key "$@"; }
issue -in server.csr -extensions here -out good.pem
issue -in server.csr -extensions elsewhere -out wrong-name.pem
issue -in server.csr -extensions here -startdate 20200101000000Z -enddate 20200102000000Z -out expired.pem
issue -in server.csr -extensions here -out revoked.pem
issue -in client.csr -out client.pem
issue -revoke revoked.pem
issue -gencrl -out crl.pem
for name in good self-signed; do openssl x509 -in $name.pem -noout -fingerprint -sha1 >$name.pem.sha1; done
)";

  ScratchFile m_files;
};

}  // namespace Tessel::Testing

#endif
