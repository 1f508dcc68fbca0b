// Completing the form sets of one package list after its IFR walk, in two
// steps: what follows from the IFR alone (languages, storage and block
// names, the expression records), done once per parse, and what depends on
// the device's current values (values, conditions, default expressions),
// done again for every call.
#pragma once

#include "services/forms/evaluate.h"

namespace tvl::forms {

// `languages` are the NUL-terminated tags of the package list's string
// packages in the order they appear. Prepares every form set.
EFI_STATUS prepareFormSets(const PackageList& list, ParsedForms& parsed, const Vector<const CHAR8*>& languages);

// Keeps the form sets with the GUID `filter` (null: all; the others stay in
// `parsed` with `kept` false), clears what an earlier refresh left in them,
// reads their current values and evaluates their conditions and default
// expressions. `questions` indexes `parsed`.
EFI_STATUS refreshFormSets(const PackageList& list, ParsedForms& parsed, const QuestionIndex& questions,
                           const EFI_GUID* filter);

}  // namespace tvl::forms
