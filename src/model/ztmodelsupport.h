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

#include "runtime/kvo.h"
#include "runtime/ref.h"
#include "runtime/value.h"

#include <QSet>

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

//! The indexes at which `list` holds any of `objects`.
template<typename T> IndexSet indexesOfAny(const QList<Ref<T>> &list, const QList<Ref<T>> &objects)
{
    QSet<const T *> wanted;
    for (const Ref<T> &object : objects)
        wanted.insert(object.get());
    IndexSet found;
    for (qsizetype i = 0; i < list.size(); ++i)
        if (wanted.contains(list[i].get()))
            found.add(quint64(i));
    return found;
}

//! The wired form of a list of highlight entries: a model object's
//! dictionary form, a plain value as it is.
ZT_EXPORT QVariantList dictionariesOfEntries(const QVariantList &entries);

//! The objects that a change of an ordered to-many list, observed with its
//! old values, takes out of the list (`now` is the list after the change):
//! every old object, except, for a replacement, the replacing objects and,
//! for any other change, the objects still held.
template<typename T> QList<Ref<T>> departedObjects(const KVOChange &change, const QList<Ref<T>> &now)
{
    if (isNilOrNull(change.oldValue) || change.kind == KeyValueChange::Insertion)
        return {};
    QSet<const T *> staying;
    if (change.kind == KeyValueChange::Replacement) {
        for (quint64 i : change.indexes)
            if (i < quint64(now.size()))
                staying.insert(now[qsizetype(i)].get());
    } else if (change.kind != KeyValueChange::Removal) {
        for (const Ref<T> &object : now)
            staying.insert(object.get());
    }
    QList<Ref<T>> departed;
    for (const Ref<T> &object : fromValue<QList<Ref<T>>>(change.oldValue))
        if (object && !staying.contains(object.get()))
            departed.append(object);
    return departed;
}

//! Grows whenever a person may have changed names under an index of people
//! by nickname: an identity's nickname changed from a non-empty one, or a
//! person took another identity. Such an index is rebuilt when it differs.
ZT_EXPORT quint64 nicknameGeneration();
//! Notes a rename (see nicknameGeneration).
ZT_EXPORT void noteNicknameChange();

} // namespace zt::model
