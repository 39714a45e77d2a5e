#pragma once
// What every chat-model class shares: its localized texts and the value
// transformers that applications supply.
//
// Localized texts go through Qt's translation mechanism under the context
// "Zintaro": an application installs a QTranslator with that context's
// messages; with none loaded, the key itself is the text ("AWAY").
//
// Value transformers turn a model value into something to show (a status
// number into its picture). The framework names them and asks for them; the
// application registers them at start-up. An unregistered transformer
// answers nil.

#include "runtime/value.h"

#include <functional>

namespace zt::model {

//! The translation of `key` in the context "Zintaro", or `key` itself.
ZT_EXPORT QString localizedString(const char *key);

using ValueTransformer = std::function<QVariant(const QVariant &)>;

//! The name under which the status-to-image transformer is registered.
inline constexpr char StatusImageTransformerName[] = "ZTStatusImageTransformer";

//! Registers (or, with an empty function, removes) the transformer named `name`.
ZT_EXPORT void setValueTransformer(const QString &name, ValueTransformer transformer);
//! The transformed value, or nil when no transformer has that name.
ZT_EXPORT QVariant transformedValue(const QString &name, const QVariant &value);

//! Grows whenever a person may have changed names under an index of people
//! by nickname: an identity's nickname changed from a non-empty one, or a
//! person took another identity. Such an index is rebuilt when it differs.
ZT_EXPORT quint64 nicknameGeneration();
//! Notes a rename (see nicknameGeneration).
ZT_EXPORT void noteNicknameChange();

} // namespace zt::model
