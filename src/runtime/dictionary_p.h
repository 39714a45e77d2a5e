#pragma once
// Building a Dictionary in place: for the property-list reader, which decodes
// each entry straight into the block.

#include "runtime/dictionary.h"

namespace zt {

struct DictionaryBuilder
{
    //! A dictionary of `size` entries, each a null key and a nil value.
    static Dictionary withSize(qsizetype size);
    //! Writable entries. Only while the dictionary is not yet shared, and the
    //! keys must end up sorted and distinct.
    static Dictionary::Entry *entries(Dictionary &dict) noexcept;
};

} // namespace zt
