#pragma once
// Process facts: the application identifier (reverse-DNS, e.g.
// "com.example.Zintaro2Agent"; an agent's ends with "Agent") and globally
// unique strings.

#include "runtime/packeduuid.h"
#include "zt_export.h"

#include <QString>

namespace zt::process {

//! The application identifier. Set by the application before the first model
//! object is made; until then it is empty (a client).
ZT_EXPORT QString applicationIdentifier();
ZT_EXPORT void setApplicationIdentifier(const QString &identifier);

//! A new globally unique string: upper-case UUID text without braces
//! ("6F9619FF-8B86-D011-B42D-00C04FC964FF"), so it never holds "_".
ZT_EXPORT QString globallyUniqueString();
//! The same, packed (no string is made).
ZT_EXPORT PackedUUID globallyUniqueUUID();

//! Restarts the process image (same process ID, arguments and descriptors)
//! with glibc's malloc tuned for building a large model, unless the
//! environment already settles each tunable, which it does after the
//! restart. GLIBC_TUNABLES gains:
//!  - "glibc.malloc.hugetlb=1": the heap asks for transparent huge pages. A
//!    process that builds a large model (an agent joining a channel of tens
//!    of thousands of people, a client mirroring it) then faults its heap in
//!    2 MiB pages rather than 4 KiB ones; on a virtual machine, where each
//!    fault is dear, that halves the time to build the model. Where the
//!    kernel's transparent huge pages are off, it changes nothing.
//!  - "glibc.malloc.tcache_count=1000": each thread keeps up to 1,000 freed
//!    chunks of each small size (7 by default) for reuse without a lock.
//!    Sending a batch of people makes and frees thousands of same-sized
//!    nodes; with 7 the rest go to the shared bins, which the next large
//!    request then merges chunk by chunk. The cache holds only freed chunks
//!    of sizes up to 1 KiB, which the thread reuses first.
//! Call it first in main(), before any thread starts. Under a sanitizer's
//! allocator the tunables change nothing. Returns only if the process was
//! not restarted.
ZT_EXPORT void restartWithTunedHeap(char **argv);

} // namespace zt::process
