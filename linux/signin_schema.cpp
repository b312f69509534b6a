#include "linux/database.h"
#include "linux/paths.h"

namespace tavr
{

namespace
{

// Times are BootSeconds with the boot they belong to, but for those that people read.
constexpr const char* kMigrations[] = {
    // The vault: a secret's and its codes' sealed rows, by their references.
    R"(
CREATE TABLE vault_key (
    id INTEGER PRIMARY KEY CHECK (id = 1),
    fingerprint BLOB NOT NULL              -- of the machine key that sealed the rows
) STRICT;
CREATE TABLE secret (
    reference TEXT PRIMARY KEY,
    account INTEGER NOT NULL,
    sealed BLOB NOT NULL,
    state TEXT NOT NULL CHECK (state IN ('waiting', 'confirmed', 'active')),   -- a retired one has no row
    last_step INTEGER NOT NULL DEFAULT -1, -- no code of this time step or an earlier one is accepted
    session BLOB,                          -- whose page asked for it, while it waits
    made_boot TEXT NOT NULL,
    made INTEGER NOT NULL
) STRICT, WITHOUT ROWID;
CREATE UNIQUE INDEX secret_of_account ON secret (account, state);
CREATE TABLE code (
    reference TEXT PRIMARY KEY,
    secret TEXT NOT NULL REFERENCES secret (reference) ON DELETE CASCADE,
    position INTEGER NOT NULL,             -- line order in the secret file
    sealed BLOB NOT NULL,
    spent INTEGER NOT NULL DEFAULT 0 CHECK (spent IN (0, 1))
) STRICT, WITHOUT ROWID;
CREATE INDEX code_of_secret ON code (secret, position);
CREATE TABLE account_mark (
    account INTEGER PRIMARY KEY,
    switching_off INTEGER NOT NULL DEFAULT 0 CHECK (switching_off IN (0, 1)),
    last_step INTEGER NOT NULL DEFAULT -1  -- outlives the secret: a step used once stays used
) STRICT;
)",
    // Sessions and half sign-ins.
    R"(
CREATE TABLE session (
    id BLOB PRIMARY KEY,                   -- hash of the identifier
    account INTEGER NOT NULL,
    state TEXT NOT NULL CHECK (state IN ('live', 'code_required', 'enrolment_required')),
    boot TEXT NOT NULL,
    opened INTEGER NOT NULL,
    seen INTEGER NOT NULL,                 -- last renewal of the idle time
    second_step INTEGER NOT NULL CHECK (second_step IN (0, 1)),   -- opened on an accepted code
    confirmed INTEGER NOT NULL             -- when the enrolment was confirmed that it was opened on; 0: none
) STRICT, WITHOUT ROWID;
CREATE INDEX session_of_account ON session (account);
CREATE INDEX session_by_age ON session (boot, seen);
)",
    // What happened, for people (audit.cpp). Numbers only grow, so that who follows misses nothing.
    R"(
CREATE TABLE audit (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    time INTEGER NOT NULL,                 -- of the wall clock
    event TEXT NOT NULL,
    outcome TEXT NOT NULL,
    address TEXT NOT NULL,                 -- the client's; "console"; "-": none
    uid INTEGER,                           -- null: an account that was only named
    detail TEXT NOT NULL,
    account TEXT NOT NULL                  -- escaped
) STRICT;
CREATE INDEX audit_by_time ON audit (time);
)",
    // What was tried, and the code that an administrator gave out.
    R"(
CREATE TABLE second_step (
    account INTEGER PRIMARY KEY,
    failures INTEGER NOT NULL,             -- in a row
    boot TEXT NOT NULL,
    at INTEGER NOT NULL,                   -- the last of them
    told_step INTEGER NOT NULL DEFAULT -1  -- told in a hint about the phone's clock; not accepted any more
) STRICT;
CREATE TABLE password_try (
    id INTEGER PRIMARY KEY AUTOINCREMENT,  -- never one that was given back
    key BLOB NOT NULL,                     -- hash of the name, the address or the session
    boot TEXT NOT NULL,
    at INTEGER NOT NULL
) STRICT;
CREATE INDEX password_try_of_key ON password_try (key);
CREATE INDEX password_try_by_age ON password_try (boot, at);
CREATE TABLE temporary_code (
    account INTEGER PRIMARY KEY,
    sealed BLOB NOT NULL,                  -- bound to the account and to the two below
    boot TEXT NOT NULL,                    -- good in this start of the machine alone
    until INTEGER NOT NULL
) STRICT;
)",
    // Emergency codes that were mailed, or are about to be.
    R"(
CREATE TABLE code_mail (
    id INTEGER PRIMARY KEY AUTOINCREMENT,  -- never one that was given back
    account INTEGER NOT NULL,
    boot TEXT NOT NULL,
    at INTEGER NOT NULL
) STRICT;
CREATE INDEX code_mail_of_account ON code_mail (account);
)",
    // A session is dead once its account's generation (accounts.h) is another.
    R"(
ALTER TABLE session ADD COLUMN generation INTEGER NOT NULL DEFAULT 0;
)",
    // What a code changes stands in one row, so that storing it is storing one page.
    R"(
ALTER TABLE account_mark ADD COLUMN active_step INTEGER NOT NULL DEFAULT -1;    -- last accepted of this secret
ALTER TABLE account_mark ADD COLUMN confirmed_step INTEGER NOT NULL DEFAULT -1; -- likewise
ALTER TABLE account_mark ADD COLUMN told_step INTEGER NOT NULL DEFAULT -1;      -- as second_step had it
ALTER TABLE account_mark ADD COLUMN failures INTEGER NOT NULL DEFAULT 0;        -- likewise; in a row
ALTER TABLE account_mark ADD COLUMN failed_boot TEXT NOT NULL DEFAULT '';       -- the last of them
ALTER TABLE account_mark ADD COLUMN failed_at INTEGER NOT NULL DEFAULT 0;
INSERT OR IGNORE INTO account_mark (account) SELECT account FROM secret UNION SELECT account FROM second_step;
UPDATE account_mark SET active_step = secret.last_step FROM secret
    WHERE secret.account = account_mark.account AND secret.state = 'active';
UPDATE account_mark SET confirmed_step = secret.last_step FROM secret
    WHERE secret.account = account_mark.account AND secret.state = 'confirmed';
UPDATE account_mark SET told_step = s.told_step, failures = s.failures, failed_boot = s.boot, failed_at = s.at
    FROM second_step AS s WHERE s.account = account_mark.account;
DROP TABLE second_step;
ALTER TABLE secret DROP COLUMN last_step;
)",
    // Settling reads an account's codes from the index alone. The audit's rows go in the order of their
    // numbers, so their number is all the order they need; as the newest row never goes, no number comes
    // again.
    R"(
DROP INDEX code_of_secret;
CREATE INDEX code_of_secret ON code (secret, position, spent);
CREATE TABLE audit_by_number (
    id INTEGER PRIMARY KEY,
    time INTEGER NOT NULL,
    event TEXT NOT NULL,
    outcome TEXT NOT NULL,
    address TEXT NOT NULL,
    uid INTEGER,
    detail TEXT NOT NULL,
    account TEXT NOT NULL
) STRICT;
INSERT INTO audit_by_number SELECT id, time, event, outcome, address, uid, detail, account FROM audit;
DROP TABLE audit;
ALTER TABLE audit_by_number RENAME TO audit;
)",
    // A code that is mailed is one row in one place, so that counting it is storing one page.
    R"(
CREATE TABLE code_mail_by_account (
    account INTEGER NOT NULL,
    number INTEGER NOT NULL,               -- random: none is one that was given back
    boot TEXT NOT NULL,
    at INTEGER NOT NULL,
    PRIMARY KEY (account, number)
) STRICT, WITHOUT ROWID;
INSERT INTO code_mail_by_account SELECT account, id, boot, at FROM code_mail;
DROP TABLE code_mail;
ALTER TABLE code_mail_by_account RENAME TO code_mail;
)",
};

} // namespace

Database& SigninDatabase()
{
    static Database database(kSigninDatabase, kMigrations);
    return database;
}

} // namespace tavr
