#!/usr/bin/python3
"""Databases as older versions of the programs left them.

    old_database.py SOURCE VERSION FILE   makes FILE by the first VERSION migrations that SOURCE (C++) holds as raw strings
    old_database.py --shape FILE          prints FILE's health, version, tables, columns and indices, one a line
"""
import os
import re
import sqlite3
import sys


def make(source, version, path):
    with open(source, encoding="utf-8") as text:
        listed = re.search(r"kMigrations\[\] = \{(.*?)\n\};", text.read(), re.S).group(1)
    migrations = re.findall(r'R"\((.*?)\)"', listed, re.S)
    assert version <= len(migrations), "%s has %d migrations" % (source, len(migrations))
    os.umask(0o077)
    database = sqlite3.connect(path, isolation_level=None)
    database.execute("PRAGMA journal_mode=WAL")
    for migration in migrations[:version]:
        database.executescript(migration)
    database.execute("PRAGMA user_version=%d" % version)
    database.close()


def shape(path):
    database = sqlite3.connect(path)
    print(database.execute("PRAGMA integrity_check").fetchone()[0])
    print("version", database.execute("PRAGMA user_version").fetchone()[0])
    names = "SELECT type, name FROM sqlite_master WHERE type IN ('table', 'index') AND name NOT LIKE 'sqlite%' ORDER BY type, name"
    for kind, name in database.execute(names).fetchall():
        print(kind, name, sorted(row[1:] for row in database.execute("PRAGMA %s_info(%s)" % (kind, name))))


if sys.argv[1] == "--shape":
    shape(sys.argv[2])
else:
    make(sys.argv[1], int(sys.argv[2]), sys.argv[3])
