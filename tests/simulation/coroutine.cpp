#include "tests/simulation/coroutine.h"

#include <cxxabi.h>
#include <link.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>

#ifndef __x86_64__
#error "Coroutines are written for x86-64"
#endif

extern "C" void velmor_switch_stacks(void** from, void* to);

// Stores the registers that a called function preserves on the stack, and takes those from the other stack. The control
// words of floating point are the same for all.
asm(R"(
    .pushsection .text
    .globl velmor_switch_stacks
    .hidden velmor_switch_stacks
    .type velmor_switch_stacks, @function
    .p2align 4
velmor_switch_stacks:
    pushq %rbp
    pushq %rbx
    pushq %r12
    pushq %r13
    pushq %r14
    pushq %r15
    movq %rsp, (%rdi)
    movq %rsi, %rsp
    popq %r15
    popq %r14
    popq %r13
    popq %r12
    popq %rbx
    popq %rbp
    ret
    .size velmor_switch_stacks, . - velmor_switch_stacks
    .popsection
)");

namespace kx::velmor::simulation {

namespace {

constexpr std::size_t kStackSize = 256UL * 1024;
constexpr std::size_t kGuardSize = 4096;

Coroutine* g_current = nullptr;

/// Those without a coroutine. Kept for the next one: touched pages are what a new stack costs.
std::vector<char*>& FreeStacks()
{
    static std::vector<char*>& stacks = *new std::vector<char*>;
    return stacks;
}

char* TakeStack()
{
    std::vector<char*>& stacks = FreeStacks();
    if (!stacks.empty())
    {
        char* const stack = stacks.back();
        stacks.pop_back();
        return stack;
    }
    void* const memory = mmap(nullptr, kGuardSize + kStackSize, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED || mprotect(memory, kGuardSize, PROT_NONE) != 0)
    {
        throw std::bad_alloc();
    }
    return static_cast<char*>(memory);
}

/// The executable's thread-local variables: where this thread has them, and what they begin with.
struct Variables
{
    char* place = nullptr;
    std::vector<char> initial{};
};

int FindVariables(dl_phdr_info* info, std::size_t /*size*/, void* result)
{
    // The executable comes first.
    for (int i = 0; i < info->dlpi_phnum; ++i)
    {
        const ElfW(Phdr)& segment = info->dlpi_phdr[i];
        if (segment.p_type == PT_TLS)
        {
            Variables& variables = *static_cast<Variables*>(result);
            variables.place = static_cast<char*>(info->dlpi_tls_data);
            // The loader tells addresses as numbers.
            // NOLINTNEXTLINE(performance-no-int-to-ptr)
            const auto* const image = reinterpret_cast<const char*>(info->dlpi_addr + segment.p_vaddr);
            variables.initial.assign(image, image + segment.p_filesz);
            variables.initial.resize(segment.p_memsz);
        }
    }
    return 1;
}

const Variables& ExecutablesVariables()
{
    static void* thread = nullptr;
    static Variables& variables = *new Variables;
    if (thread != __builtin_thread_pointer())
    {
        thread = __builtin_thread_pointer();
        dl_iterate_phdr(&FindVariables, &variables);
    }
    return variables;
}

}  // namespace

ThreadState::ThreadState() : variables_(ExecutablesVariables().initial) {}

void ThreadState::Enter(ThreadState& previous) const
{
    previous.Store();
    Load();
}

void ThreadState::Store()
{
    const Variables& variables = ExecutablesVariables();
    variables_.assign(variables.place, variables.place + variables.initial.size());
    // Two words, which the standard ABI names: the stack of caught exceptions, and the count of uncaught ones.
    std::memcpy(exceptions_, static_cast<const void*>(abi::__cxa_get_globals()), kExceptionsSize);
    errno_ = errno;
}

void ThreadState::Load() const
{
    std::copy(variables_.begin(), variables_.end(), ExecutablesVariables().place);
    std::memcpy(static_cast<void*>(abi::__cxa_get_globals()), exceptions_, kExceptionsSize);
    errno = errno_;
}

Coroutine::Coroutine(std::function<void()> main) : main_(std::move(main)), stack_(TakeStack())
{
    // As after a call: the address to return to, which is nowhere, below a multiple of 16.
    constexpr std::size_t kRegisters = 6;
    void** top = reinterpret_cast<void**>(stack_ + kGuardSize + kStackSize);
    *--top = nullptr;
    *--top = reinterpret_cast<void*>(&Coroutine::Enter);
    for (std::size_t i = 0; i < kRegisters; ++i)
    {
        *--top = nullptr;
    }
    stackPointer_ = top;
}

Coroutine::~Coroutine()
{
    FreeStacks().push_back(stack_);
}

Coroutine* Coroutine::Current() noexcept
{
    return g_current;
}

void Coroutine::Resume()
{
    g_current = this;
    state_.Enter(resumer_);
    velmor_switch_stacks(&resumerStackPointer_, stackPointer_);
    resumer_.Enter(state_);
    g_current = nullptr;
}

void Coroutine::Suspend()
{
    velmor_switch_stacks(&stackPointer_, resumerStackPointer_);
}

void Coroutine::AtEnd(void (*function)(void*), void* object)
{
    atEnd_.emplace_back(function, object);
}

void Coroutine::RunAtEnd()
{
    while (!atEnd_.empty())
    {
        const auto [function, object] = atEnd_.back();
        atEnd_.pop_back();
        function(object);
    }
}

void Coroutine::Enter() noexcept
{
    Coroutine& self = *g_current;
    {
        // What it holds goes on this stack, since that may take waiting.
        const std::function<void()> main = std::move(self.main_);
        main();
    }
    self.RunAtEnd();
    self.ended_ = true;
    self.Suspend();
    // Nobody resumes what has ended.
    __builtin_unreachable();
}

}  // namespace kx::velmor::simulation
