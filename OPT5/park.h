// Functions that wait while others are read or worked on are parked: their
// statements and trees are packed into bytes (a few per node) and the trees
// are erased, so that a whole unit takes little more memory than its I-file
// between the barrier steps.  Unparking makes the same trees and statements
// again; steps get the flow graph built from them, writing needs only the
// statements.  Parking a function that has a flow graph first turns its
// blocks back into statements, as rebuildcfg does.
#pragma once

#include <cstddef>
#include <vector>

struct BODY_ENTRY;

// The bytes of a parked body.  They live in slabs shared by all parked
// bodies, one after another, and a slab is used again once every body in it
// has been let go of; a body too large for that gets a block of its own.
class parked_body {
public:
    parked_body() = default;
    ~parked_body() { clear(); }
    parked_body(const parked_body&) = delete;
    parked_body& operator=(const parked_body&) = delete;

    const unsigned char* data() const { return data_; }
    size_t size() const { return size_; }
    void assign(const unsigned char* bytes, size_t n);
    void clear();

private:
    unsigned char* data_ = nullptr;
    size_t size_ = 0;
};

// Both act on the current function (`currfuninfo`).
void park_function();
// The statements and their flow graph (also for a function that was left
// with only its statements).
void unpark_function();
// Only the statement list, as it was parked.
void unpark_statements();
// For a look that changes nothing: the statement list made again while the
// parked bytes stay; then `repark_unchanged` erases the statements and the
// function is parked as before, without packing it again.
void unpark_statements_keeping_bytes();
void repark_unchanged();
// Lets go of a statement list (its trees already erased), keeping its
// storage for the next function.
void spare_body(std::vector<BODY_ENTRY>& body);
// Gives an empty statement list the storage of the last one let go of.
void take_spare_body(std::vector<BODY_ENTRY>& body);
