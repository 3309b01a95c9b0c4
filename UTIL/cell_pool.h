// Cells of one size for objects made and freed by the thousand (flow-graph
// edges and blocks): each thread keeps a free list, filled a chunk at a
// time, so that making and freeing a cell never reaches the heap.  Chunks
// live to the end of the run: a cell made on one thread may be freed on
// another, and then serves that thread.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

template <size_t Size, size_t Align>
class cell_pool {
    static constexpr size_t cell_bytes = (Size + Align - 1) / Align * Align;
    static constexpr size_t cells_per_chunk = 1024;
    struct free_cell {
        free_cell* next;
    };
    static_assert(cell_bytes >= sizeof(free_cell) && Align >= alignof(free_cell));
    static_assert(Align <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "chunks come from plain new[]");

public:
    static void* take() {
        free_cell*& head = free_list();
        if (!head) {
            unsigned char* chunk = new_chunk();
            for (size_t i = cells_per_chunk; i-- > 0;) head = new (chunk + i * cell_bytes) free_cell{head};
        }
        free_cell* c = head;
        head = c->next;
        return c;
    }
    static void give(void* cell) noexcept {
        if (!cell) return;
        free_cell*& head = free_list();
        head = new (cell) free_cell{head};
    }

private:
    static free_cell*& free_list() {
        thread_local free_cell* head = nullptr;
        return head;
    }
    static unsigned char* new_chunk() {
        static std::mutex lock;
        static std::vector<std::unique_ptr<unsigned char[]>> chunks;
        std::lock_guard<std::mutex> hold(lock);
        chunks.push_back(std::make_unique_for_overwrite<unsigned char[]>(cell_bytes * cells_per_chunk));
        return chunks.back().get();
    }
};
