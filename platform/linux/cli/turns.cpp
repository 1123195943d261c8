// SPDX-License-Identifier: Apache-2.0
// A task's work runs on a stack that is mapped for it, with a page below that nobody may touch. Going on and pausing
// are changes of the stack within the one thread (makecontext, swapcontext); an exception of the work is carried over
// by hand, as it cannot leave a stack.
#include "cli/turns.h"

#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "base/threads.h"

#ifdef RAVO_ADDRESS_SANITIZER
#include <sanitizer/common_interface_defs.h>
#endif

namespace ravo::cli {

namespace {

using steady = std::chrono::steady_clock;

#ifdef RAVO_ADDRESS_SANITIZER
constexpr std::size_t stack_size = std::size_t{2} << 20;  // its frames are several times as large
#else
constexpr std::size_t stack_size = std::size_t{256} << 10;
#endif

// Tells the address sanitizer that the stack changes; elsewhere these do nothing.
struct stack_marks {
    void *kept = nullptr;               // of the stack that is left
    const void *loop_bottom = nullptr;  // of the event loop's stack
    std::size_t loop_size = 0;
};

void leaving([[maybe_unused]] void **kept, [[maybe_unused]] const void *bottom, [[maybe_unused]] std::size_t size) {
#ifdef RAVO_ADDRESS_SANITIZER
    __sanitizer_start_switch_fiber(kept, bottom, size);
#endif
}

void arrived([[maybe_unused]] void *kept, [[maybe_unused]] const void **bottom, [[maybe_unused]] std::size_t *size) {
#ifdef RAVO_ADDRESS_SANITIZER
    __sanitizer_finish_switch_fiber(kept, bottom, size);
#endif
}

}  // namespace

struct turns {
    std::function<void()> work;
    std::byte *memory = nullptr;  // the page below the stack, and the stack
    std::size_t memory_size = 0;
    ucontext_t here{};  // where the work goes on
    ucontext_t loop{};  // where the event loop waits for the turn's end
    stack_marks marks;
    steady::time_point due;  // when the turn is over
    std::exception_ptr thrown;
    int undivided = 0;
    bool begun = false;
    bool done = false;
    bool given_up = false;  // the work is to end where it is

    [[nodiscard]] std::byte *stack() const { return memory + (memory_size - stack_size); }
};

namespace {

// Ends the work of a task that was given up.
struct given_up_here {};

turns *current = nullptr;  // whose turn it is

// The process ends, perhaps by the work of a task: what the relay cannot do without ends it at once. What unfinished
// work would do at its own end may need what is gone by then.
bool process_ends = false;

void enter(unsigned low, unsigned high) {
    auto *task = reinterpret_cast<turns *>(static_cast<std::uintptr_t>(high) << 32 | low);
    arrived(nullptr, &task->marks.loop_bottom, &task->marks.loop_size);
    try {
        task->work();
    } catch (const given_up_here &) {
        // Nobody wants to know.
    } catch (...) {
        task->thrown = std::current_exception();
    }
    task->work = nullptr;
    task->done = true;
    leaving(nullptr, task->marks.loop_bottom, task->marks.loop_size);  // this stack is not come back to
    setcontext(&task->loop);
}

void prepare(turns &task) {
    getcontext(&task.here);
    task.here.uc_stack.ss_sp = task.stack();
    task.here.uc_stack.ss_size = stack_size;
    task.here.uc_link = nullptr;
    const auto address = reinterpret_cast<std::uintptr_t>(&task);
    // The function gets its arguments as ints.
    makecontext(&task.here, reinterpret_cast<void (*)()>(enter), 2, static_cast<unsigned>(address),
                static_cast<unsigned>(static_cast<std::uint64_t>(address) >> 32));
}

}  // namespace

void turns_delete::operator()(turns *task) const {
    if (task == current) return;  // the process ends by this task, on whose stack this runs
    if (task->begun && !task->done && !process_ends) {
        task->given_up = true;
        (void)turns_go_on(*task, std::chrono::microseconds(0));
    }
    if (task->memory != nullptr) munmap(task->memory, task->memory_size);
    delete task;
}

turns_ptr turns_begin(std::function<void()> work) {
    // Runs before whatever holds tasks is destroyed, as that was constructed before the first task was made.
    [[maybe_unused]] static const int registered = std::atexit([] { process_ends = true; });
    turns_ptr task(new turns);
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t size = stack_size + page;
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    task->memory = static_cast<std::byte *>(memory);
    task->memory_size = size;
    if (mprotect(memory, page, PROT_NONE) != 0) throw std::bad_alloc();
    task->work = std::move(work);
    return task;
}

bool turns_go_on(turns &task, std::chrono::microseconds slice) {
    if (!std::exchange(task.begun, true)) prepare(task);
    task.due = steady::now() + slice;
    turns *const before = std::exchange(current, &task);
    void *kept = nullptr;
    leaving(&kept, task.stack(), stack_size);
    swapcontext(&task.loop, &task.here);
    arrived(kept, nullptr, nullptr);
    current = before;
    if (task.thrown) std::rethrow_exception(std::exchange(task.thrown, nullptr));
    return task.done;
}

bool turns_pause() {
    turns *const task = current;
    // On the way out, and while an exception is under way, nothing else may come between.
    if (task == nullptr || task->undivided != 0 || task->given_up || std::uncaught_exceptions() != 0) return false;
    leaving(&task->marks.kept, task->marks.loop_bottom, task->marks.loop_size);
    swapcontext(&task->here, &task->loop);
    arrived(task->marks.kept, &task->marks.loop_bottom, &task->marks.loop_size);
    if (task->given_up) throw given_up_here{};
    return true;
}

void turns_pause_if_due() {
    if (current != nullptr && current->undivided == 0 && steady::now() >= current->due) (void)turns_pause();
}

void turns_aside(const std::function<void()> &work) {
    const auto done = std::make_shared<std::atomic<bool>>(false);
    if (current == nullptr || current->undivided != 0) return work();
    const auto whole = [done, work] {
        work();
        done->store(true, std::memory_order_release);
        done->notify_all();
    };
    if (platform::start_thread(whole) != 0) return work();
    while (!done->load(std::memory_order_acquire))
        if (!turns_pause()) done->wait(false, std::memory_order_acquire);
}

turns_undivided::turns_undivided() {
    if (current != nullptr) ++current->undivided;
}

turns_undivided::~turns_undivided() {
    if (current != nullptr) --current->undivided;
}

}  // namespace ravo::cli
