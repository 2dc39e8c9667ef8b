// The list container against the standard library's containers of pointers.

#include <algorithm>
#include <list>
#include <random>
#include <string>
#include <vector>

#include "measure.h"
#include "rows.h"
#include "trelm_dlist.h"

namespace bench {
namespace {

constexpr size_t kSizes[] = {10, 100, 1000, 1024, 10000, 100000, 1000000};
constexpr size_t kElementsInABatch = 20000;

// All three sorts call the same function through a pointer, as a user of the list does.
int compare_numbers(void* a, void* b) {
    const uint32_t left = *static_cast<const uint32_t*>(a);
    const uint32_t right = *static_cast<const uint32_t*>(b);
    return left < right ? -1 : left > right;
}
int (*volatile comparison)(void*, void*) = compare_numbers;

struct Less {
    int (*compare)(void*, void*) = comparison;
    bool operator()(void* a, void* b) const { return compare(a, b) < 0; }
};

struct ListSort {
    static trelm_dlist* fill(std::vector<uint32_t>& numbers) {
        trelm_dlist* list = trelm_dlist_new_with_delete(sizeof(uint32_t), [](void*) {});
        for (uint32_t& number : numbers) trelm_dlist_push(list, &number);
        return list;
    }
    static void sort(trelm_dlist* list) { trelm_dlist_sort_custom(list, comparison); }
    static void destroy(trelm_dlist* list) { trelm_dlist_destroy(list); }
};

struct StandardList {
    static std::list<void*>* fill(std::vector<uint32_t>& numbers) {
        auto* list = new std::list<void*>;
        for (uint32_t& number : numbers) list->push_back(&number);
        return list;
    }
    static void sort(std::list<void*>* list) { list->sort(Less{}); }
    static void destroy(std::list<void*>* list) { delete list; }
};

struct Vector {
    static std::vector<void*>* fill(std::vector<uint32_t>& numbers) {
        auto* pointers = new std::vector<void*>;
        for (uint32_t& number : numbers) pointers->push_back(&number);
        return pointers;
    }
    static void sort(std::vector<void*>* pointers) {
        std::stable_sort(pointers->begin(), pointers->end(), Less{});
    }
    static void destroy(std::vector<void*>* pointers) { delete pointers; }
};

// Sorts enough containers of that many fresh random elements for the clock; nanoseconds an element.
template <class Container>
double sort_batch(std::vector<std::vector<uint32_t>>& inputs) {
    std::vector<decltype(Container::fill(inputs[0]))> containers;
    size_t elements = 0;
    for (auto& input : inputs) {
        containers.push_back(Container::fill(input));
        elements += input.size();
    }
    const double start = now();
    for (auto* container : containers) Container::sort(container);
    const double took = now() - start;
    for (auto* container : containers) Container::destroy(container);
    return took / static_cast<double>(elements);
}

template <class Other>
void sort_against(benchmark::State& state, size_t size) {
    const size_t lists = std::max<size_t>(1, kElementsInABatch / size);
    std::mt19937 random(4711);
    Samples samples;
    for ([[maybe_unused]] auto _ : state) {
        std::vector<std::vector<uint32_t>> inputs(lists, std::vector<uint32_t>(size));
        for (auto& input : inputs)
            for (uint32_t& number : input) number = static_cast<uint32_t>(random());
        const double took = sort_batch<ListSort>(inputs);
        samples.add(took, sort_batch<Other>(inputs));
        state.SetIterationTime(took * 1e-9);
    }
    samples.report(state);
}

void push_pop(benchmark::State& state) {
    constexpr size_t kCount = 1024;
    uint32_t element = 0;
    trelm_dlist* list = trelm_dlist_new_with_delete(sizeof element, [](void*) {});
    std::list<void*> standard;
    compare(
        state,
        [&] {
            for (size_t i = 0; i < kCount; ++i) trelm_dlist_push(list, &element);
            for (size_t i = 0; i < kCount; ++i) benchmark::DoNotOptimize(trelm_dlist_pop(list));
        },
        [&] {
            for (size_t i = 0; i < kCount; ++i) standard.push_back(&element);
            for (size_t i = 0; i < kCount; ++i) {
                benchmark::DoNotOptimize(standard.back());
                standard.pop_back();
            }
        },
        kCount);
    trelm_dlist_destroy(list);
}

}  // namespace

void add_list_rows() {
    for (const size_t size : kSizes) {
        const std::string name = "sort " + std::to_string(size) + " elements, per element, against ";
        const int pairs = size > 100000 ? 7 : size > 10000 ? 31 : 101;
        add_row(name + "std::list::sort", pairs,
                [=](benchmark::State& state) { sort_against<StandardList>(state, size); });
        add_row(name + "std::stable_sort of a vector", pairs,
                [=](benchmark::State& state) { sort_against<Vector>(state, size); });
    }
    add_row("push and pop an element, against std::list", kPairs, push_pop);
}

}  // namespace bench
