// Freeing the records that ProcessForms builds. Every record is reachable
// from its form set as soon as it is made, so one walk frees a complete or
// a half-built form set alike.
#pragma once

#include "services/forms/support.h"

namespace tvl::forms {

void destroyStatement(HII_STATEMENT_RECORD* statement);
void destroyFormSet(HII_FORMSET_RECORD* formSet);
// Frees `count` form sets and the array that holds them.
void destroyFormSets(HII_FORMSET_RECORD** formSets, UINTN count);

}  // namespace tvl::forms
