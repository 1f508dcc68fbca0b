// Completing the form sets of one package list after its IFR walk: the
// form-set filter, languages, storage and block names, current values,
// conditions and default expressions.
#pragma once

#include "services/forms/parsed.h"

namespace tvl::forms {

// `languages` are the NUL-terminated tags of the package list's string
// packages in the order they appear; `filter` keeps only form sets with
// that GUID (null: all). Form sets that do not pass stay in `parsed`
// with `kept` false.
EFI_STATUS completeFormSets(const PackageList& list, ParsedForms& parsed, const Vector<const CHAR8*>& languages,
                            const EFI_GUID* filter);

}  // namespace tvl::forms
