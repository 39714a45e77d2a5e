#pragma once
// The invocation message: one remote call (or reply) on the stream between
// agent and client. Every framing integer is an unsigned 64-bit big-endian word:
//
//   offset   width  field
//   0        8      B, the body length (everything below)
//   8        8      S, selector length
//   16       S      selector name, ASCII, no terminator
//   16+S     8      H, handler identifier length (0: no result awaited)
//   24+S     H      handler identifier, ASCII
//   24+S+H   8      K, argument count (the signature's count minus 2)
//   32+S+H   …      K records: an 8-byte payload length L, then L bytes
//
// A payload is empty for nil and the null marker, the index-set form for an
// index set, and a binary property list for everything else (scalars are
// boxed as numbers of their kind, "c" as a boolean). No magic number, no
// version, no padding.
//
// Index-set form: the magic 0xFEEDFACE and the byte count N of the index list
// as big-endian 64-bit words, then each index as a 64-bit word in host byte
// order (both processes run on one machine; the header words are converted,
// the index words deliberately are not).

#include "runtime/invocation.h"
#include "runtime/plist.h"

#include <QByteArrayView>

class VDModelBridge;
#include <cstring>

namespace vd {

inline constexpr quint64 IndexSetMagic = 0xFEEDFACE;
inline constexpr quint64 NotAnIndex = ~quint64(0);

//! A range of bytes in a body.
struct Range
{
    quint64 location = 0;
    quint64 length = 0;
};

//! The range {cursor, size}; advances the cursor by size.
ZT_EXPORT Range VDRangeWithCursorAndSize(quint64 &cursor, quint64 size);

//! @sel indexSetToData
ZT_EXPORT QByteArray indexSetToData(const zt::IndexSet &set);
//! Longer than 8 bytes and starting with the magic word.
//! @sel isIndexSetData
ZT_EXPORT bool isIndexSetData(QByteArrayView data);
//! Reads the indexes the form holds; a count past the data is cut to it. The
//! largest 64-bit value marks "not found" and is never an index: it is skipped.
//! @sel indexSetFromData
ZT_EXPORT zt::IndexSet indexSetFromData(QByteArrayView data);

//! The signature of the reply method `vd_returnedValue:withHandlerID:`.
ZT_EXPORT const zt::Protocol &VDInternalVDConnectionProtocol();
inline constexpr char ReturnedValueSelector[] = "vd_returnedValue:withHandlerID:";
//! Whether `selector` is ReturnedValueSelector (its length is compared first).
inline bool isReturnedValueSelector(const zt::Selector &selector)
{
    constexpr qsizetype n = sizeof(ReturnedValueSelector) - 1;
    return selector.size() == n && std::memcmp(selector.constData(), ReturnedValueSelector, n) == 0;
}

//! One whole message (length field included) for an invocation. Raises
//! "Unknown object type" (an object argument the bridge refuses), "Unknown
//! argument format" or "EWREW" (not a property list) for arguments that
//! cannot be sent; nothing is produced then. Without a bridge every object
//! argument goes straight to the property-list check.
ZT_EXPORT QByteArray dataFromInvocation(const zt::Invocation &invocation, const QString &handlerID,
                                        const VDModelBridge *bridge = nullptr);

//! Limits on what a body may make the reader build.
struct DecodeLimits
{
    zt::plist::ReadLimits plist{64, 1 << 20};
};

//! Decodes a body (the length field already consumed) into a ready-to-run
//! invocation on `target`. Answers nullopt when the selector has no signature
//! on the target. Raises "Wrong number of arguments", "Unknown argument
//! format", or NSRangeException for a body shorter than its fields. A
//! payload that is not a property list is logged ("Could not deserialize %@
//! (%@)", long payloads cut to their first 64 bytes and their length) and
//! arrives as nil.
ZT_EXPORT std::optional<zt::Invocation> invocationFromData(QByteArrayView body, zt::Object *target,
                                                           QString *handlerID,
                                                           const DecodeLimits &limits = {});

} // namespace vd
