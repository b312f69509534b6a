// Notices: mails without any code that tell the owner of an account what happened to its second step, at the
// address on file. The audit notes them in the current request as it goes (Request::notices), and the
// verifier notes several wrong codes in a row.
#pragma once

namespace tavr
{

// Queues what the current request has noted, and forgets it. For the end of a request, when its answer is out
// and its ids are lowered: it costs a transaction of the queue for each notice. Never fails: without an
// address, a mail server or room in the queue there is no notice, and one log line at most.
void QueueNotices() noexcept;

} // namespace tavr
