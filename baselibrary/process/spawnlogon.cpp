#include "process/spawnlogon_p.h"

#include <QByteArray>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <grp.h>
#include <pwd.h>
#include <security/pam_appl.h>
#include <unistd.h>

namespace Brevi {
namespace SpawnLogon {

namespace {

struct Credentials {
    QByteArray account;
    QByteArray qualifier;
};

void wipe(QByteArray& secret)
{
    if (!secret.isEmpty())
        explicit_bzero(secret.data(), size_t(secret.size()));
    secret.clear();
}

void freeResponses(pam_response* responses, int count)
{
    for (int i = 0; i < count; ++i) {
        if (responses[i].resp) {
            explicit_bzero(responses[i].resp, std::strlen(responses[i].resp));
            std::free(responses[i].resp);
        }
    }
    std::free(responses);
}

// Nobody is there to type: the password prompt gets the qualifier, a name
// prompt the account, and information or error texts are let pass.
int converse(int count, const pam_message** messages, pam_response** responses, void* data)
{
    if (count <= 0 || !messages || !responses || !data)
        return PAM_CONV_ERR;
    const Credentials* credentials = static_cast<const Credentials*>(data);
    pam_response* replies = static_cast<pam_response*>(std::calloc(size_t(count), sizeof(pam_response)));
    if (!replies)
        return PAM_BUF_ERR;
    for (int i = 0; i < count; ++i) {
        const char* answer = nullptr;
        switch (messages[i]->msg_style) {
        case PAM_PROMPT_ECHO_OFF:
            answer = credentials->qualifier.constData();
            break;
        case PAM_PROMPT_ECHO_ON:
            answer = credentials->account.constData();
            break;
        case PAM_ERROR_MSG:
        case PAM_TEXT_INFO:
            continue;
        default:
            freeResponses(replies, count);
            return PAM_CONV_ERR;
        }
        replies[i].resp = strdup(answer);
        if (!replies[i].resp) {
            freeResponses(replies, count);
            return PAM_BUF_ERR;
        }
    }
    *responses = replies;
    return PAM_SUCCESS;
}

int errnoOf(int pamResult)
{
    switch (pamResult) {
    case PAM_SUCCESS:
        return 0;
    case PAM_BUF_ERR:
        return ENOMEM;
    case PAM_ACCT_EXPIRED:
    case PAM_NEW_AUTHTOK_REQD:
    case PAM_AUTHTOK_EXPIRED:
        return EKEYEXPIRED;
    case PAM_AUTH_ERR:
    case PAM_USER_UNKNOWN:
    case PAM_CRED_INSUFFICIENT:
    case PAM_AUTHINFO_UNAVAIL:
    case PAM_MAXTRIES:
    case PAM_PERM_DENIED:
        return EACCES;
    default:
        return EIO;
    }
}

} // namespace

bool logon(const QString& account, const QString& qualifier, QString& user, QString& reason, int& error)
{
    Credentials credentials { account.toLocal8Bit(), qualifier.toLocal8Bit() };
    const pam_conv conversation { converse, &credentials };
    pam_handle_t* handle = nullptr;
    int result = pam_start(Service, credentials.account.constData(), &conversation, &handle);
    if (result == PAM_SUCCESS) {
        // An account without a password does not log on here: the qualifier
        // is what proves the caller may act as that account.
        result = pam_authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
        if (result == PAM_SUCCESS)
            result = pam_acct_mgmt(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
        if (result == PAM_SUCCESS) {
            const void* item = nullptr;
            if (pam_get_item(handle, PAM_USER, &item) == PAM_SUCCESS && item)
                user = QString::fromLocal8Bit(static_cast<const char*>(item));
            else
                user = account;
        }
    }
    reason = QString::fromLocal8Bit(pam_strerror(handle, result));
    error = errnoOf(result);
    if (handle)
        pam_end(handle, result);
    wipe(credentials.qualifier);
    return result == PAM_SUCCESS;
}

bool resolve(const QString& user, Identity& identity, int& error)
{
    const QByteArray name = user.toLocal8Bit();
    std::vector<char> buffer(16384);
    passwd entry;
    passwd* found = nullptr;
    int result;
    while ((result = getpwnam_r(name.constData(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE)
        buffer.resize(buffer.size() * 2);
    if (result != 0 || !found) {
        error = result != 0 ? result : ENOENT;
        return false;
    }
    identity.uid = found->pw_uid;
    identity.gid = found->pw_gid;

    // getgrouplist gives the number it needs when the list is too short.
    int count = 32;
    for (;;) {
        identity.groups.resize(size_t(count));
        const int asked = count;
        if (getgrouplist(name.constData(), identity.gid, identity.groups.data(), &count) >= 0)
            break;
        if (count <= asked)
            count = 2 * asked;
    }
    identity.groups.resize(size_t(count));

    identity.change = !(
        identity.uid == getuid() && identity.uid == geteuid() && identity.gid == getgid() && identity.gid == getegid());
    return true;
}

} // namespace SpawnLogon
} // namespace Brevi
