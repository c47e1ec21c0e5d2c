// Changes the configuration: adds and removes domains and mail users in one transaction.
#ifndef TSL_CMF_WRITER_H
#define TSL_CMF_WRITER_H

#include <cstdint>
#include <memory>
#include <string>

#include "TslRefcounted.h"
#include "base/Export.h"
#include "cmf/MailUser.h"

namespace Tessel::CMF {

// One write transaction on the configuration that TSL_CMF_PATH names when it is made. Nothing is
// seen by anybody else before `commit`; without it everything is given up.
//
// Writers of all processes take turns, and readers neither wait nor are waited for. A writer that
// dies leaves the state before it; the next one goes on. Threads: made, used and destroyed by one
// thread, which can have one at a time. In a forked child it can only be destroyed.
//
// Failures throw Exception, code 4, and leave what is stored untouched. After a failure other than
// a refused name, domain or kind the transaction is lost: each further call throws.
//
// A process with a limit on file sizes must ignore SIGXFSZ to get an Exception at the limit.
class TSL_EXPORT Writer : public NonCopyable {
 public:
  // What `addDomain` found or made.
  struct Domain {
    std::uint32_t id;
    bool added;  // False when the domain was there.
  };
  enum class UserResult { Added, Changed, Unchanged };

  // Creates the directory and its files where they are missing, and waits until no other writer is
  // at work.
  Writer();
  ~Writer();

  // Adds `domain` with an empty table of mail users. One that is there, in any letter case, stays
  // as it is. Domains are 1 to 255 octets without control characters, blanks and "@".
  Domain addDomain(const std::string& domain);

  // Removes `domain` and its tables; its identifier is never used again. False when there is none.
  bool removeDomain(const std::string& domain);

  // Adds `user`, the local part of an address, to `domain`, which must be there. One that is there,
  // in any letter case, gets the new kind and keeps its spelling. User names are 1 to 64 octets
  // without control characters and "@". Fastest in ascending order of lower-cased names.
  UserResult addUser(const std::string& domain, const std::string& user, MailUserKind kind);

  // Removes `user` from `domain`, which must be there. False when there is no such user.
  bool removeUser(const std::string& domain, const std::string& user);

  // Stores all changes, durably when it returns. The writer can only be destroyed afterwards.
  void commit();

 private:
  class TSL_HIDDEN Transaction;
  std::unique_ptr<Transaction> m_transaction;
};

}  // namespace Tessel::CMF

#endif
