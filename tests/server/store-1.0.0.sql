-- A store as dsessd 1.0.0 made it.
CREATE TABLE realms (
    number INTEGER PRIMARY KEY,
    name TEXT NOT NULL UNIQUE
) STRICT;
CREATE TABLE replica_sets (
    number INTEGER PRIMARY KEY,
    realm INTEGER NOT NULL REFERENCES realms DEFERRABLE INITIALLY DEFERRED,
    name TEXT NOT NULL UNIQUE
) STRICT;
CREATE INDEX replica_sets_by_realm ON replica_sets (realm, number);
CREATE TABLE members (
    number INTEGER PRIMARY KEY,
    replica_set INTEGER NOT NULL REFERENCES replica_sets DEFERRABLE INITIALLY DEFERRED,
    name TEXT NOT NULL,
    last_contact INTEGER NOT NULL,
    UNIQUE (replica_set, name)
) STRICT;
CREATE TABLE sessions (
    realm INTEGER NOT NULL REFERENCES realms DEFERRABLE INITIALLY DEFERRED,
    id TEXT NOT NULL,
    user TEXT NOT NULL,
    time INTEGER NOT NULL,
    PRIMARY KEY (realm, id)
) STRICT, WITHOUT ROWID;
CREATE INDEX sessions_by_user ON sessions (realm, user, time, id);
CREATE TABLE keys (
    number INTEGER PRIMARY KEY,
    label TEXT NOT NULL UNIQUE,
    time INTEGER NOT NULL
) STRICT;
CREATE TABLE settings (
    name TEXT PRIMARY KEY,
    value INTEGER NOT NULL
) STRICT, WITHOUT ROWID;
CREATE TABLE administrators (
    name TEXT PRIMARY KEY,
    password_hash TEXT NOT NULL,
    role TEXT NOT NULL CHECK (role IN ('read', 'change'))
) STRICT, WITHOUT ROWID;
PRAGMA application_id=0x44534553;
PRAGMA user_version=1;
PRAGMA journal_mode=WAL;
INSERT INTO realms VALUES (2, 'east');
INSERT INTO replica_sets VALUES (3, 2, 'set');
INSERT INTO members VALUES (1, 3, 'm', 5);
INSERT INTO sessions VALUES (2, 's', 'u', 6);
INSERT INTO keys VALUES (1, 'spring', 7), (2, 'summer', 8);
INSERT INTO settings VALUES ('trace level', 4);
INSERT INTO administrators VALUES ('mary', '$y$', 'read');
