#include "platform/mail.h"

#include "linux/error.h"
#include "linux/mail_queue.h"
#include "linux/mail_settings.h"
#include "linux/mail_templates.h"
#include "linux/request.h"
#include "linux/string_hash.h"

#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

using tavr::Error;
using tavr::Fail;

namespace
{

// Where exceptions stop, as behind every C interface.
template<class Call>
int Guarded(Call call)
{
    try {
        return call();
    } catch (const tavr::DatabaseError& error) {
        syslog(LOG_ERR, "mail queue: %s", error.what());
        return Fail(Error::DatabaseFailed);
    } catch (const tavr::VaultError& error) {
        syslog(LOG_ERR, "mail queue: %s", error.what());
        return Fail(Error::VaultUnavailable);
    } catch (const std::bad_alloc&) {
        return Fail(Error::OutOfMemory);
    }
}

// As much of a text as fits, whole characters alone.
void CopyCut(const std::string& text, char* out, size_t size)
{
    size_t length = std::min(text.size(), size - 1);
    while (length < text.size() && length > 0 && (static_cast<unsigned char>(text[length]) & 0xc0) == 0x80) {
        --length;
    }
    std::memcpy(out, text.data(), length);
    out[length] = 0;
}

} // namespace

int TAVRMailReadByTagAndConvertRealEx(const char* lang, const char* tag, char* subject, int size,
                                      char** content, KLIBCSzHash** hash, int /*flags*/)
{
    if (lang == nullptr || tag == nullptr || subject == nullptr || size <= 0 || content == nullptr ||
        hash == nullptr || *hash == nullptr) {
        return Fail(Error::BadParameter);
    }
    return Guarded([&] {
        const auto text = tavr::MakeMailText(lang, tag, (*hash)->values);
        if (!text) {
            return Fail(Error::NotFound);
        }
        char* body = strdup(text->body.c_str());
        if (body == nullptr) {
            return Fail(Error::OutOfMemory);
        }
        CopyCut(text->subject, subject, static_cast<size_t>(size));
        *content = body;
        return 0;
    });
}

int TAVRMailGet(TAVRMail* mail)
{
    if (mail == nullptr) {
        return Fail(Error::BadParameter);
    }
    return Guarded([&] {
        *mail = {};
        const auto server = tavr::NotificationServer();
        if (server) {
            CopyCut(server->host, mail->server, sizeof mail->server);
        }
        return 0;
    });
}

// All of the record lies within it.
void TAVRMailFree(TAVRMail* mail)
{
    if (mail != nullptr) {
        *mail = {};
    }
}

// Its caller does not look at the result and says that the mail is under way, so the request has to know.
int TAVRMailSendMessageWithoutBlock(const char* tag, KLIBCSzHash** hash, const char* address, int /*flags*/)
{
    const int status = Guarded([&] {
        if (tag == nullptr || hash == nullptr || *hash == nullptr || address == nullptr) {
            return Fail(Error::BadParameter);
        }
        if (!tavr::IsMailAddress(address)) {
            return Fail(Error::BadParameter);
        }
        const auto text = tavr::MakeMailText(tavr::MailLanguage(), tag, (*hash)->values);
        if (!text) {
            return Fail(Error::NotFound);
        }
        tavr::QueueMail(address, text->subject, tavr::HtmlOf(text->body));
        return 0;
    });
    if (status < 0) {
        tavr::NoteFault(tavr::Fault::MailNotQueued);
    }
    return status;
}
