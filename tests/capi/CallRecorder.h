// Sits between the C interface and the address helper that makes addresses.
#ifndef TSL_TESTS_CAPI_CALLRECORDER_H
#define TSL_TESTS_CAPI_CALLRECORDER_H

#include <vector>

#include "address/tsl_emailaddress.h"

namespace Tessel::Testing {

// While one lives, it records the addresses that tsl_emailaddress_create() makes for the C
// interface and can have a call throw the library's exception. One at a time, one thread.
class CallRecorder {
 public:
  CallRecorder();
  ~CallRecorder();
  CallRecorder(const CallRecorder&) = delete;
  CallRecorder& operator=(const CallRecorder&) = delete;

  // The call with this number, counted from 1, throws instead of making an address.
  void throwAtCall(int number) { m_throwing = number; }
  [[nodiscard]] const std::vector<tsl_emailaddress>& made() const { return m_made; }

  // For the helper's stand-in.
  tsl_emailaddress record(const EmailAddress& address);

 private:
  int m_calls = 0;
  int m_throwing = 0;
  std::vector<tsl_emailaddress> m_made;
};

// What the stand-in does: asks the recorder that lives, or the helper itself.
tsl_emailaddress createOrRecord(const EmailAddress& address);

}  // namespace Tessel::Testing

#endif
