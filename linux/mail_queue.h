// Mails that wait to be sent by the notification service: rows of a database of their own, sealed, durable
// until they are sent or given up. Whoever has something to say queues it (the workers, the console); one
// process sends (tavr-webapid): it holds a lock for as long as it lives, so that no mail goes out twice side
// by side. A process that ends between the server's yes and StoreResults leaves a mail that is sent again,
// with the same Message-ID.
//
// Times between tries are BootSeconds: a wall clock moves nothing, and after a start of the machine they
// count from its start. Never while ids are raised (database.h).
#pragma once

#include "linux/database.h"
#include "linux/machine_key.h" // VaultError

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tavr
{

inline constexpr int64_t kMostWaitingMails = 20'000;
inline constexpr int64_t kMostMailsOfRecipient = 200; // that wait: nobody takes all the room
inline constexpr int64_t kMostFinishedMails = 2'000;  // then all but the last kKeptFinishedMails go
inline constexpr int64_t kKeptFinishedMails = 1'000;  // rows to be looked at
inline constexpr size_t kMailLimit = 131'072;         // bytes of subject and text

inline constexpr int64_t kFirstMailWaitSeconds = 60; // doubled after each further try
inline constexpr int64_t kLongestMailWaitSeconds = 60 * 60;
inline constexpr int64_t kMailGivenUpSeconds = 24 * 60 * 60; // of waiting

// Durable when it returns; then whoever sends is told by the web API's call TAVR.Notification.Mail `wake`,
// whose answer nobody waits for. `to` is one address (IsMailAddress), `html` the whole body; neither subject
// nor body holds a NUL. Throws DatabaseError, also when the queue is full or the mail too large, and
// VaultError. Nothing is queued then.
void QueueMail(const std::string& to, const std::string& subject, const std::string& html);

// Whether a mail waits: it could not be sent without the machine key that sealed it. Throws DatabaseError.
bool HasSealedMails();

// --- For the one that sends. All throw DatabaseError, DueMails VaultError too ---

struct QueuedMail {
    int64_t id = 0;
    std::string to;
    std::string subject;
    std::string html;
    std::string messageId; // with its angle brackets; the same in every try
    int64_t date = 0;      // WallSeconds when it was queued
    int attempts = 0;      // made before
};

// Takes out what is due, those that are due longest first, less than `most` where they are large: this
// process gets none of them again before StoreResults. Nothing while another process sends. One that does not
// open counts as a failed try.
std::vector<QueuedMail> DueMails(size_t most);

// What became of mails that were taken out, in one transaction. One that is sent, or not to be tried again,
// or that has waited too long is finished: its text is wiped from the database now, and from the database's
// log within a second of further calls, or when DueMails finds no more to do. So many results at a time are
// cheaper, and whoever has stored one asks DueMails again. When it throws nothing is stored, and the same
// results are to be stored later.
struct QueueResult {
    int64_t id = 0;
    bool sent = false;
    bool retry = false;
    int reply = 0;    // the server's reply code; 0: none
    std::string text; // for people, one line
};
void StoreResults(std::span<const QueueResult> results);

// Until the next one that is not taken out is due, 0: now; -1: there is none. While another process sends: a
// minute.
int64_t SecondsUntilDue();

// --- For the console; all throw DatabaseError ---

struct ListedMail {
    int64_t id = 0;
    std::string state; // "waiting", "sent", "given_up", "dropped"
    std::string to;    // empty when it cannot be opened
    int64_t date = 0;
    int attempts = 0;
    int64_t dueIn = 0; // seconds; of one that waits
    int reply = 0;     // of the last try
    std::string text;
};
std::vector<ListedMail> ListMails(); // by number

// False: no mail of that number waits.
bool RetryMail(int64_t id); // due at once, and whoever sends is told
bool DropMail(int64_t id);  // one that is being sent at the moment may still arrive

} // namespace tavr
