// Pieces of the import shared by its sources: the results writer that
// remembers where the last record went, the growing request text, and the
// hexadecimal text of error codes.
#pragma once

#include "import/collections.h"
#include "import/import.h"
#include "uefi/runtime.h"

namespace tvl::imp {

// An error code as the documents write it: the low 32 bits in lower-case
// hexadecimal without prefix.
struct CodeText {
  CHAR8 text[64];
};
CodeText codeText(UINT64 code);

// TRUE while the restore trigger is set: the variable exists and fits in
// four bytes. Without runtime services there is no restore.
bool restoreInProgress();

// Where a run of records goes: the results root (null until the first
// record of a new document) and its last child, so that a record is linked
// without walking the records before it.
struct ResultsTarget {
  XML_NODE* root = nullptr;
  XML_NODE* last = nullptr;  // null: not known yet
};
// addStatusNode on a target. On success the target names the root and its
// new last child; on failure it is unchanged.
EFI_STATUS appendStatusRecord(const CHAR8* name, XML_NODE* currentItem, XML_NODE* pendingItem,
                              const CHAR8* statusWord, UINT64 errorCode, ResultsTarget& target);

// A request text that grows geometrically: `length` characters in a pool
// buffer of `capacity` characters (the rest zero-filled).
struct RequestText {
  CHAR16* text = nullptr;
  UINTN length = 0;
  UINTN capacity = 0;
};
// Appends one segment as CreateConfigRequest does. `exact` allocates just
// what the text needs whenever it grows (the named operation's behaviour);
// otherwise the buffer at least doubles. On failure `request` is unchanged
// and nothing is freed.
EFI_STATUS appendRequestSegment(RequestText& request, const CHAR16* configHdr, const CHAR16* blockName,
                                const CHAR16* value, bool exact);

// The records addErrorNode marks, by name: the first element named "Name"
// with that text in document order from the root, as its own search finds
// it. Built once for all the marks of a save.
class RecordIndex {
 public:
  EFI_STATUS build(XML_NODE* root);
  XML_NODE* find(const CHAR8* name) const;

 private:
  HashMap<ByText<CHAR8>> names_;
};

// addErrorNode through an index (null: its own search from the root).
void markErrorRecord(const CHAR8* name, UINT64 errorCode, XML_NODE** resultsRoot, const RecordIndex* index);

// Undoes the XML escapes of a text in place (the text only shrinks).
void unescapeInPlace(CHAR8* text);

}  // namespace tvl::imp
