// The stand-in for tsl_emailaddress_create(): a definition in the program goes before that of the
// platform's library.
#include "tests/capi/CallRecorder.h"

#include <dlfcn.h>

#include "base/Exception.h"

namespace Tessel::Testing {

namespace {

CallRecorder* s_recorder = nullptr;

tsl_emailaddress s_createReally(const EmailAddress& address) {
  using Create = tsl_emailaddress (*)(const EmailAddress&);
  static const auto create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "tsl_emailaddress_create"));
  return create(address);
}

}  // namespace

tsl_emailaddress createOrRecord(const EmailAddress& address) {
  return s_recorder != nullptr ? s_recorder->record(address) : s_createReally(address);
}

CallRecorder::CallRecorder() {
  s_recorder = this;
}

CallRecorder::~CallRecorder() {
  s_recorder = nullptr;
}

tsl_emailaddress CallRecorder::record(const EmailAddress& address) {
  if (++m_calls == m_throwing) throw Exception("CallRecorder", 4, nullptr, 0);
  m_made.push_back(s_createReally(address));
  return m_made.back();
}

}  // namespace Tessel::Testing

tsl_emailaddress tsl_emailaddress_create(const Tessel::EmailAddress& address) {
  return Tessel::Testing::createOrRecord(address);
}
