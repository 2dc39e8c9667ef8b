// The list container against the standard library's containers of pointers.

#include <algorithm>
#include <list>
#include <memory>
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

uint32_t number_at(void* element) { return *static_cast<const uint32_t*>(element); }

// A comparison as a user writes it. Its branch depends on random numbers, so the processor mispredicts every
// second one in all sorts alike.
int compare_with_branch(void* a, void* b) {
    if (number_at(a) < number_at(b)) return -1;
    asm volatile("");  // keeps the compiler from removing the branch
    return number_at(a) > number_at(b);
}
int compare_without_branch(void* a, void* b) {
    return (number_at(a) > number_at(b)) - (number_at(a) < number_at(b));
}

// All three sorts call the same function through a pointer, as a user of the list does.
int (*volatile comparison)(void*, void*);

struct Less {
    int (*compare)(void*, void*) = comparison;
    bool operator()(void* a, void* b) const { return compare(a, b) < 0; }
};

struct OurList {
    void add(uint32_t& number) { trelm_dlist_push(list.get(), &number); }
    void sort() { trelm_dlist_sort_custom(list.get(), comparison); }
    std::unique_ptr<trelm_dlist, decltype(&trelm_dlist_destroy)> list{
        trelm_dlist_new_with_delete(sizeof(uint32_t), [](void*) {}), trelm_dlist_destroy};
};

struct StandardList {
    void add(uint32_t& number) { list.push_back(&number); }
    void sort() { list.sort(Less{}); }
    std::list<void*> list;
};

struct Vector {
    void add(uint32_t& number) { pointers.push_back(&number); }
    void sort() { std::stable_sort(pointers.begin(), pointers.end(), Less{}); }
    std::vector<void*> pointers;
};

template <class Container>
double time_sort(std::vector<Container>& containers) {
    const double start = now();
    for (Container& container : containers) container.sort();
    return now() - start;
}

// Enough containers with that many fresh random elements for the clock. Both kinds are filled alternately,
// element by element, so that neither has a better memory layout.
template <class Other>
void sort_against(benchmark::State& state, int (*compare)(void*, void*), size_t size) {
    comparison = compare;
    const size_t lists = std::max<size_t>(1, kElementsInABatch / size);
    std::mt19937 random(4711);
    std::vector<uint32_t> numbers(lists * size);
    Samples samples;
    bool ours_first = false;
    for ([[maybe_unused]] auto _ : state) {
        for (uint32_t& number : numbers) number = static_cast<uint32_t>(random());
        std::vector<OurList> ours(lists);
        std::vector<Other> others(lists);
        for (size_t i = 0; i < numbers.size(); ++i) {
            ours[i / size].add(numbers[i]);
            others[i / size].add(numbers[i]);
        }
        const double before = ours_first ? 0 : time_sort(others);
        const double took = time_sort(ours);
        samples.add(took, ours_first ? time_sort(others) : before);
        state.SetIterationTime(took * 1e-9);
        ours_first = !ours_first;
    }
    samples.report(state, static_cast<double>(numbers.size()));
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
    struct {
        const char* name;
        int (*compare)(void*, void*);
    } constexpr kComparisons[] = {{"with a branch", compare_with_branch},
                                  {"without a branch", compare_without_branch}};
    for (const auto& comparison_used : kComparisons) {
        for (const size_t size : kSizes) {
            const std::string name = "sort " + std::to_string(size) + ", comparison " + comparison_used.name +
                                     ", per element, against std::";
            const int pairs = size > 100000 ? 7 : size > 10000 ? 31 : 101;
            const auto compare = comparison_used.compare;
            add_row(name + "list::sort", pairs,
                    [=](benchmark::State& state) { sort_against<StandardList>(state, compare, size); });
            add_row(name + "stable_sort of a vector", pairs,
                    [=](benchmark::State& state) { sort_against<Vector>(state, compare, size); });
        }
    }
    add_row("push and pop an element, against std::list", kPairs, push_pop);
}

}  // namespace bench
