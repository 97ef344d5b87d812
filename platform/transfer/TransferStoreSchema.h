#pragma once

#include <cstdint>

namespace platform {

// PRAGMA application_id: "QNTS".
inline constexpr int64_t kStoreApplicationId = 0x514E5453;

// Step n makes version n + 1 of the schema out of version n. Steps are never changed once they were
// released: an old store walks through them.
inline constexpr const char* kStoreSchemaSteps[] = {
    R"sql(
CREATE TABLE session(
  id INTEGER PRIMARY KEY CHECK(id = 1),
  identifier TEXT NOT NULL);
CREATE TABLE task(
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  method TEXT NOT NULL,
  url TEXT,
  headers BLOB NOT NULL,
  description TEXT,
  running INTEGER NOT NULL,
  stage INTEGER NOT NULL,
  redirected_url TEXT,
  status INTEGER NOT NULL,
  response_headers BLOB NOT NULL,
  response_length INTEGER NOT NULL,
  validator TEXT NOT NULL,
  expected INTEGER NOT NULL,
  file_owner INTEGER NOT NULL,
  file_generation INTEGER NOT NULL,
  received INTEGER NOT NULL,
  synced INTEGER NOT NULL,
  report_due INTEGER NOT NULL,
  attempts INTEGER NOT NULL,
  furthest INTEGER NOT NULL,
  stalled_ms INTEGER NOT NULL,
  retry_at INTEGER NOT NULL,
  wait INTEGER NOT NULL,
  error_domain TEXT,
  error_code INTEGER NOT NULL,
  error_text TEXT,
  error_url TEXT,
  error_path TEXT,
  error_status INTEGER NOT NULL,
  resume_token TEXT NOT NULL,
  boot_id TEXT NOT NULL);
)sql",
    // What a service needs to carry on without the application.
    R"sql(
ALTER TABLE session ADD COLUMN application TEXT NOT NULL DEFAULT '';
ALTER TABLE session ADD COLUMN partial_directory TEXT NOT NULL DEFAULT '';
ALTER TABLE session ADD COLUMN connections_per_host INTEGER NOT NULL DEFAULT 0;
ALTER TABLE session ADD COLUMN transfers INTEGER NOT NULL DEFAULT 0;
ALTER TABLE session ADD COLUMN bytes_per_second INTEGER NOT NULL DEFAULT 0;
ALTER TABLE session ADD COLUMN connect_timeout_ms INTEGER NOT NULL DEFAULT 0;
ALTER TABLE session ADD COLUMN stall_timeout_ms INTEGER NOT NULL DEFAULT 0;
ALTER TABLE session ADD COLUMN retry_bound_ms INTEGER NOT NULL DEFAULT 0;
ALTER TABLE session ADD COLUMN disk_full_bound_ms INTEGER NOT NULL DEFAULT 0;
ALTER TABLE session ADD COLUMN ca_file TEXT NOT NULL DEFAULT '';
ALTER TABLE session ADD COLUMN cellular INTEGER NOT NULL DEFAULT 1;
ALTER TABLE session ADD COLUMN discretionary INTEGER NOT NULL DEFAULT 0;
ALTER TABLE session ADD COLUMN launch_events INTEGER NOT NULL DEFAULT 0;
ALTER TABLE session ADD COLUMN launch_command TEXT;
)sql",
    // What has been taken in of the messages of an application that speaks to a service.
    R"sql(
ALTER TABLE session ADD COLUMN front INTEGER NOT NULL DEFAULT 0;
ALTER TABLE session ADD COLUMN mark INTEGER NOT NULL DEFAULT 0;
)sql",
};

inline constexpr int kStoreSchemaVersion = sizeof kStoreSchemaSteps / sizeof kStoreSchemaSteps[0];

}  // namespace platform
