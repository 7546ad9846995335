#ifndef BASELIBRARY_PROCESS_SPAWNLOGON_P_H
#define BASELIBRARY_PROCESS_SPAWNLOGON_P_H

#include <QString>

#include <vector>

#include <sys/types.h>

namespace Brevi {

// The account side of Spawn: checking an account's password and finding what
// the child must become. Not exported.
namespace SpawnLogon {

// The PAM service the password is checked under. Debian's "login" stack is
// pam_unix for authentication and account checks; unlike "su" it has no
// pam_rootok, so root is asked for the password like everyone else.
const char* const Service = "login";

// Authenticates `account` with `qualifier` and checks that the account may log
// on now (not expired, no password change due). On success `user` is the name
// PAM settled on. On failure `reason` is PAM's text and `error` an errno value
// of the same meaning (EACCES for a wrong password or an unknown user alike).
bool logon(const QString& account, const QString& qualifier, QString& user, QString& reason, int& error);

// What the child takes on before the program starts.
struct Identity {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
    // False when this process already runs as that user and group: nothing to
    // switch, and a caller without root may still start its own account.
    bool change = false;
};

// Looks the user up and collects its groups, as initgroups would, so that the
// child only has to make system calls between fork and exec. False with an
// errno value when there is no such user.
bool resolve(const QString& user, Identity& identity, int& error);

} // namespace SpawnLogon
} // namespace Brevi

#endif
