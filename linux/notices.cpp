#include "linux/notices.h"

#include "linux/accounts.h"
#include "linux/mail_queue.h"
#include "linux/mail_settings.h"
#include "linux/mail_templates.h"
#include "linux/request.h"
#include "linux/user_settings.h"

#include <syslog.h>

#include <ctime>
#include <utility>

namespace tavr
{

namespace
{

// In the server's own time, with its zone.
std::string TimeText(int64_t time)
{
    const auto seconds = static_cast<time_t>(time);
    tm parts{};
    char text[64] = {};
    if (localtime_r(&seconds, &parts) == nullptr) {
        return "";
    }
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S %Z (%z)", &parts);
    return text;
}

void Queue(const Request::Notice& notice)
{
    const std::optional<Account> account = FindAccount(notice.account);
    if (!account) {
        return;
    }
    const std::string onFile = RecoveryAddress(*account);
    const std::string address = notice.address.value_or(onFile);
    const bool unchanged = notice.address == onFile;
    if (unchanged || !IsMailAddress(address)) {
        return;
    }
    const auto text = MakeMailText(MailLanguage(), notice.tag,
                                   {{"%USER_NAME%", account->name}, {"%TIME%", TimeText(notice.time)}});
    if (text) {
        QueueMail(address, text->subject, HtmlOf(text->body));
    }
}

} // namespace

void QueueNotices() noexcept
{
    try {
        const std::vector<Request::Notice> notices = std::exchange(CurrentRequest().notices, {});
        if (notices.empty() || !NotificationServer()) {
            return;
        }
        for (const Request::Notice& notice : notices) {
            Queue(notice);
        }
    } catch (const std::exception& error) {
        syslog(LOG_ERR, "a notice could not be queued: %s", error.what());
    }
}

} // namespace tavr
