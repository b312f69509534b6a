// Where things stand on a running server. Every absolute path is named here and nowhere else in linux/.
#pragma once

namespace tavr
{

inline constexpr char kServiceUser[] = "tavr-web"; // whom the workers run as

inline constexpr char kSettingsFile[] = "/etc/tavrinfo.conf";          // a link into kConfigDir
inline constexpr char kConfigDir[] = "/etc/tavr";                      // root 0755
inline constexpr char kMachineKeyFile[] = "/etc/tavr/otp.key";         // root:tavr-web 0440
inline constexpr char kSecretsFile[] = "/etc/tavr/secrets";            // root:tavr-web 0440
inline constexpr char kSelfSignedFile[] = "/etc/tavr/self-signed.pem"; // root 0400: key and certificate
inline constexpr char kMachineIdFile[] = "/etc/machine-id";

inline constexpr char kDataDir[] = "/usr/tavr/etc";                  // tavr-web 0755
inline constexpr char kPreferenceDir[] = "/usr/tavr/etc/preference"; // tavr-web 0700
inline constexpr char kPolicyFile[] = "/usr/tavr/etc/tavr_otp_enforce_custom_setting";

inline constexpr char kStateDir[] = "/var/lib/tavr";                         // tavr-web 0700
inline constexpr char kAccountsDatabase[] = "/var/lib/tavr/accounts.db";     // users, groups
inline constexpr char kSystemAccountsDatabase[] = "/var/lib/tavr/system.db"; // the system's, instead
inline constexpr char kSigninDatabase[] = "/var/lib/tavr/signin.db";         // vault, sessions
inline constexpr char kMailDatabase[] = "/var/lib/tavr/mail.db";             // mails that wait to be sent
inline constexpr char kDomainDatabase[] = "/var/lib/tavr/domain.db";         // copy of domains' directories
inline constexpr char kDomainLockFile[] = "/var/lib/tavr/domain.lock";       // held by who refreshes it
inline constexpr char kPolicyCopyFile[] = "/var/lib/tavr/policy.copy";       // the last good kPolicyFile
inline constexpr char kPolicyLockFile[] = "/var/lib/tavr/policy.lock";       // policy_file.h
inline constexpr char kAccountLockFile[] = "/var/lib/tavr/account.lock";     // one byte an account
inline constexpr char kMailLockFile[] = "/var/lib/tavr/mail.lock";           // held by who sends

inline constexpr char kWaitingDir[] = "/tmp";        // the web service's own; the library names it
inline constexpr char kWaitingFilePrefix[] = "OTP_"; // then the account's number

inline constexpr char kRunDir[] = "/run/tavr";                       // root 0755
inline constexpr char kWebSocket[] = "/run/tavr/otp-web.sock";       // root:www-data 0660
inline constexpr char kWebServerUser[] = "tavr-www";                 // whom the packaged web server runs as
inline constexpr char kServedCertificate[] = "/run/tavr/www.pem";    // root:tavr-www 0440
inline constexpr char kServedConfiguration[] = "/run/tavr/www.conf"; // root 0644: lines for lighttpd

inline constexpr char kMailTemplateDir[] = "/usr/share/tavr-otp/mail"; // <language>/<tag>, as installed
inline constexpr char kOwnMailTemplateDir[] = "/etc/tavr/mail";        // likewise, the administrator's

inline constexpr char kPamDir[] = "/usr/share/tavr-otp/pam"; // folders of PAM services, as installed
inline constexpr char kSystemPamDir[] = "/etc/pam.d";        // the machine's

inline constexpr char kPasswdFile[] = "/etc/passwd"; // accounts and groups of the machine
inline constexpr char kGroupFile[] = "/etc/group";
inline constexpr char kShadowFile[] = "/etc/shadow";
inline constexpr char kLoginDefsFile[] = "/etc/login.defs";

inline constexpr char kWebApiSocket[] = "/run/tavrscgi-fastapi.sock";   // platform/webapi.h
inline constexpr char kWebApiLockFile[] = "/var/lib/tavr/webapid.lock"; // held by the one service

inline constexpr char kSecretFileName[] = "otp_secret"; // in an account's preference directory
inline constexpr char kSecretToolPath[] = "/usr/bin/google-authenticator";
inline constexpr char kQrToolPath[] = "/usr/bin/qrencode";

} // namespace tavr
