// PNX_EXPORT marks the library's public API: the classes, functions and variables that
// the shared library exports. The library is compiled with hidden visibility, so anything
// without the mark stays inside it (the pnx program and the tests link the objects
// directly and see everything). A class carries the mark as a whole, so that its type
// information is shared too and dynamic casts work across the library's boundary.
//
// The mark is the same for the shared and the static library: in a static archive the
// visibility of a symbol only matters once it is linked into a shared object.
#pragma once

/// Exports the declaration it marks from the shared library.
#define PNX_EXPORT __attribute__((visibility("default")))
