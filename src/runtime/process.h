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
//! with glibc's malloc asking for transparent huge pages for its heap
//! (GLIBC_TUNABLES gains "glibc.malloc.hugetlb=1"), unless the environment
//! already settles that tunable, which it does after the restart. A process
//! that builds a large model (an agent joining a channel of tens of
//! thousands of people, a client mirroring it) then faults its heap in 2 MiB
//! pages rather than 4 KiB ones; on a virtual machine, where each fault is
//! dear, that halves the time to build the model. Call it first in main(),
//! before any thread starts. Where the kernel's transparent huge pages are
//! off, or under a sanitizer's allocator, the tunable changes nothing.
//! Returns only if the process was not restarted.
ZT_EXPORT void restartWithHugePageHeap(char **argv);

} // namespace zt::process
