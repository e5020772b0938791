// Takes the place of POCO's initialisation of OpenSSL, by its mangled name, and fails.

#include <stdexcept>

extern "C" __attribute__((visibility("default"))) void _ZN4Poco6Crypto16initializeCryptoEv() {
  throw std::runtime_error("no entropy");
}
