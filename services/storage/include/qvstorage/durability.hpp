#pragma once
// What every backend's stores are opened with: how far an acknowledged write survives.

namespace QV {

// How far an acknowledged write is guaranteed to survive.
enum class Durability {
  // On a file, synchronous=FULL (the journal is fsynced at every commit); on a server, once it
  // has flushed the write to its disk. A write that returned survives a kill of the process and
  // a crash or power loss of the machine.
  Full,
  // On a file, synchronous=NORMAL; on a server, once it has the write. A write that returned
  // survives a kill of the process; a power loss may drop the last commits (never corrupts them).
  Normal,
};

// The options every backend understands; a backend's own tuning stays with the backend.
struct StoreOptions {
  Durability durability = Durability::Full;
};

}  // namespace QV
