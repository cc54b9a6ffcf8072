// Session descriptors held in a platform record's slot (an int that other
// threads read, send on and close). Every close, install and duplicate
// runs under the listener registry's lock (common/udp_listeners.h), so a
// send never reaches a closed or reused descriptor number, and a listener
// published in a slot is closed only as its registry allows.
#pragma once

namespace qdq {

// Closes `fd` (any descriptor; if it is a listener, it is forgotten first),
// with `shut_down` shutting it down before the close.
void close_descriptor(int fd, bool shut_down = false);

// Takes the descriptor out of `*slot` (storing -1) and closes it as
// close_descriptor does, both under the registry's lock. A slot holding 0
// or less is only set to -1 (0 is what a cleared record holds).
void close_slot(int *slot, bool shut_down = false);

// Takes the descriptor out of `*slot` (storing -1) and closes it, unless it
// is a recorded listener: that one stays with its service, which goes on.
void release_slot(int *slot, bool shut_down = false);

// Stores `fd` in `*slot` when the slot holds no descriptor (0 or less);
// false, storing nothing, when it holds one.
bool install_slot(int *slot, int fd);

// Closes the descriptor in `*slot` (storing -1) when it is the same socket
// as `fd` (a duplicate of it); false, changing nothing, when the slot holds
// another one or none.
bool close_slot_if_same(int *slot, int fd);

// A close-on-exec duplicate of the descriptor in `*slot`, taken under the
// same lock, or -1. The duplicate stays the same connection however the
// slot is closed meanwhile: a send on it can never reach a reused number.
int duplicate_slot(const int *slot);

}  // namespace qdq
