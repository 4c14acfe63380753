#include "schema.hpp"

#include <vector>

namespace QV::pg {
namespace {

// Keys of session-level advisory locks, in the two-number space so that they never meet the
// one-number keys the triplet writes lock (20822 is 0x5156, "QV").
constexpr const char* kMigrationLock = "20822, 1";

// Version 1.
// Triplets: bytea compares byte for byte, like the SQLite store's BLOBs. The key index holds a
// digest of the object rather than the object, so that objects of any size can be stored
// (an index entry is limited to about a third of a page). Identity ids give the storage order.
// Users: ids from a sequence, so never reused and unique across every daemon of the database.
// Events: what the daemons announce to each other, kept for a while so that a daemon that lost
// its connection can catch up; the horizon is the last id already pruned.
// The functions do what must be atomic in one round trip. Being VOLATILE, each of their
// statements sees what committed before it started, so a statement after a lock sees every
// write the lock's previous holder made.
const char* const kVersion1 = R"SQL(
CREATE TABLE qv_triplets (
  id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  domain bytea NOT NULL,
  subject bytea NOT NULL,
  predicate bytea NOT NULL,
  object bytea NOT NULL,
  object_digest bytea GENERATED ALWAYS AS (sha256(object)) STORED
);
CREATE UNIQUE INDEX qv_triplets_by_key ON qv_triplets (domain, subject, predicate, object_digest);
CREATE INDEX qv_triplets_by_subject ON qv_triplets (subject, predicate);
CREATE INDEX qv_triplets_by_object ON qv_triplets (object_digest);
CREATE INDEX qv_triplets_by_predicate ON qv_triplets (predicate, domain);

CREATE SEQUENCE qv_user_ids AS integer MINVALUE 1 NO CYCLE;
CREATE TABLE qv_users (
  id integer PRIMARY KEY DEFAULT nextval('qv_user_ids'),
  created_at timestamptz NOT NULL DEFAULT now()
);

CREATE TABLE qv_events (
  id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  origin text NOT NULL,
  kind text NOT NULL,
  payload bytea NOT NULL,
  at timestamptz NOT NULL DEFAULT now()
);
CREATE TABLE qv_event_horizon (
  only_row boolean PRIMARY KEY DEFAULT true CHECK (only_row),
  pruned_through bigint NOT NULL
);
INSERT INTO qv_event_horizon (pruned_through) VALUES (0);

-- Events are numbered and committed in one order (the lock is held until commit), so a reader
-- that has seen event n has seen every event before it.
CREATE FUNCTION qv_announce(p_origin text, p_kind text, p_payload bytea) RETURNS void
LANGUAGE plpgsql VOLATILE AS $$
BEGIN
  PERFORM pg_advisory_xact_lock(20822, 2);
  INSERT INTO qv_events (origin, kind, payload) VALUES (p_origin, p_kind, p_payload);
  PERFORM pg_notify('qv_events', '');
END $$;

-- Leaves exactly p_object under the key. Writers of one key take turns, so concurrent updates
-- leave one object, never two.
CREATE FUNCTION qv_update(p_domain bytea, p_subject bytea, p_predicate bytea, p_object bytea)
RETURNS void LANGUAGE plpgsql VOLATILE AS $$
BEGIN
  PERFORM pg_advisory_xact_lock(
    ('x' || encode(sha256(int4send(length(p_domain)) || p_domain || int4send(length(p_subject))
                          || p_subject || p_predicate), 'hex'))::bit(64)::bigint);
  DELETE FROM qv_triplets
   WHERE domain = p_domain AND subject = p_subject AND predicate = p_predicate;
  INSERT INTO qv_triplets (domain, subject, predicate, object)
  VALUES (p_domain, p_subject, p_predicate, p_object);
END $$;

CREATE FUNCTION qv_create_user(p_origin text) RETURNS integer
LANGUAGE plpgsql VOLATILE AS $$
DECLARE
  new_id integer;
BEGIN
  INSERT INTO qv_users DEFAULT VALUES RETURNING id INTO new_id;
  PERFORM qv_announce(p_origin, 'users.created', int4send(new_id));
  RETURN new_id;
END $$;

-- All or nothing: false, deleting none, when an id is unknown or listed twice.
CREATE FUNCTION qv_delete_users(p_origin text, p_ids integer[]) RETURNS boolean
LANGUAGE plpgsql VOLATILE AS $$
DECLARE
  found integer;
  payload bytea := '';
  one integer;
BEGIN
  SELECT count(*) INTO found FROM (SELECT id FROM qv_users WHERE id = ANY (p_ids) FOR UPDATE) s;
  IF found <> cardinality(p_ids) THEN
    RETURN false;
  END IF;
  DELETE FROM qv_users WHERE id = ANY (p_ids);
  FOREACH one IN ARRAY p_ids LOOP
    payload := payload || int4send(one);
  END LOOP;
  PERFORM qv_announce(p_origin, 'users.deleted', payload);
  RETURN true;
END $$;

-- Forgets events older than p_keep, remembering where it stopped.
CREATE FUNCTION qv_prune_events(p_keep interval) RETURNS void
LANGUAGE plpgsql VOLATILE AS $$
DECLARE
  upto bigint;
BEGIN
  PERFORM pg_advisory_xact_lock(20822, 2);
  SELECT max(id) INTO upto FROM qv_events WHERE at < now() - p_keep;
  IF upto IS NOT NULL THEN
    DELETE FROM qv_events WHERE id <= upto;
    UPDATE qv_event_horizon SET pruned_through = greatest(pruned_through, upto);
  END IF;
END $$;
)SQL";

// Version 2.
// An announcement may reach the database twice: recorded, its reply lost with the server, then
// recorded again by the daemon's retry. Numbered by its daemon, the second recording finds the
// first and changes nothing, so no daemon hears it twice. Older rows keep no number.
const char* const kVersion2 = R"SQL(
ALTER TABLE qv_events ADD COLUMN notice bigint;
CREATE UNIQUE INDEX qv_events_by_notice ON qv_events (origin, notice) WHERE notice IS NOT NULL;

CREATE FUNCTION qv_announce_once(p_origin text, p_notice bigint, p_kind text, p_payload bytea)
RETURNS void LANGUAGE plpgsql VOLATILE AS $$
BEGIN
  PERFORM pg_advisory_xact_lock(20822, 2);
  INSERT INTO qv_events (origin, notice, kind, payload)
  VALUES (p_origin, p_notice, p_kind, p_payload)
  ON CONFLICT (origin, notice) WHERE notice IS NOT NULL DO NOTHING;
  IF FOUND THEN
    PERFORM pg_notify('qv_events', '');
  END IF;
END $$;
)SQL";

const std::vector<const char*>& migrations() {
  static const std::vector<const char*> all = {kVersion1, kVersion2};
  return all;
}

}  // namespace

int latestSchemaVersion() {
  return static_cast<int>(migrations().size());
}

void migrate(Connection& connection, Clock::time_point deadline) {
  connection.exec(std::string("SELECT pg_advisory_lock(") + kMigrationLock + ")", deadline);
  try {
    connection.exec(
        "CREATE TABLE IF NOT EXISTS qv_schema_migrations ("
        " version integer PRIMARY KEY,"
        " applied_at timestamptz NOT NULL DEFAULT now())",
        deadline);
    const Result current =
        connection.exec("SELECT coalesce(max(version), 0) FROM qv_schema_migrations", deadline);
    const int version = std::stoi(current.bytes(0, 0));
    if (version > latestSchemaVersion()) {
      throw std::runtime_error("the database holds schema version " + std::to_string(version) +
                               ", newer than version " + std::to_string(latestSchemaVersion()) +
                               " of this build");
    }
    for (int next = version + 1; next <= latestSchemaVersion(); ++next) {
      connection.exec(std::string("BEGIN;\n") + migrations()[next - 1] +
                          "\nINSERT INTO qv_schema_migrations (version) VALUES (" +
                          std::to_string(next) + ");\nCOMMIT;",
                      deadline);
    }
  } catch (...) {
    if (!connection.broken()) {
      try {
        connection.exec(std::string("ROLLBACK; SELECT pg_advisory_unlock(") + kMigrationLock + ")",
                        deadline);
      } catch (...) {
        // The connection is dropped by the caller anyway; the server frees the lock with it.
      }
    }
    throw;
  }
  connection.exec(std::string("SELECT pg_advisory_unlock(") + kMigrationLock + ")", deadline);
}

}  // namespace QV::pg
