#include "fuzz/executor.h"

#include <pthread.h>
#include <signal.h>

#include <qeru_wsm.h>
#include <tee_client_api.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

#include "args/tee_names.h"

namespace zel::tc::fuzz {

namespace {

constexpr uint32_t kBlockSize = 8192;

struct KindName {
    FindingKind kind;
    const char* name;
};
constexpr KindName kKindNames[] = {
    {FindingKind::kNone, "none"},
    {FindingKind::kTaDead, "ta-dead"},
    {FindingKind::kCommsError, "comms-error"},
    {FindingKind::kHang, "hang"},
    {FindingKind::kSessionLost, "session-lost"},
    {FindingKind::kNonGpResult, "non-gp-result"},
    {FindingKind::kReplyShape, "reply-shape"},
};

int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// What the reply of a well-formed request that succeeded breaks of its declared shape; empty
// when nothing. fields, when given, gets the fields read.
std::string readReply(TEEC_SharedMemory& block, const CommandSpec& spec,
                      std::vector<Field>* fields) {
    CQeruWsm codec(&block);
    codec.PrepareReset(1);
    const auto keep = [fields](Field field) {
        if (fields) fields->push_back(std::move(field));
    };
    for (size_t i = 0; i < spec.reply.size(); ++i) {
        const ReplyField& field = spec.reply[i];
        const std::string where = "reply field " + std::to_string(i + 1) + ": ";
        int integer = 0;
        unsigned int length = field.size;
        switch (field.kind) {
            case ReplyKind::kInt:
                if (!codec.GetInt(&integer)) return where + "no Int";
                keep(Field::integer(integer));
                continue;
            case ReplyKind::kUint:
                if (!codec.GetUint(&length)) return where + "no Uint";
                keep(Field::unsignedInt(length));
                continue;
            case ReplyKind::kSized:
                if (!codec.GetUint(&length)) return where + "no Uint length";
                if (field.size != 0 && length != field.size)
                    return where + "length " + std::to_string(length) + ", expected " +
                           std::to_string(field.size);
                if (length > kBlockSize / field.unit) return where + "length past the block";
                keep(Field::unsignedInt(length));
                length *= field.unit;
                break;
            case ReplyKind::kIntSized:
                if (!codec.GetInt(&integer)) return where + "no Int length";
                if (integer < 0 || static_cast<uint32_t>(integer) > kBlockSize)
                    return where + "length " + std::to_string(integer);
                keep(Field::integer(integer));
                length = static_cast<unsigned int>(integer);
                break;
            case ReplyKind::kBlob:
                break;
        }
        const unsigned char* bytes = codec.GetBlob(length);
        if (!bytes) return where + "no Blob of the " + std::to_string(length) + " bytes announced";
        keep(Field::blob({bytes, bytes + length}));
    }
    return {};
}

// The block as the TA left it, without the zeros after its last byte.
std::vector<uint8_t> rawBlock(const TEEC_SharedMemory& block) {
    const uint8_t* bytes = static_cast<const uint8_t*>(block.buffer);
    size_t size = kBlockSize;
    while (size > 0 && bytes[size - 1] == 0) --size;
    return {bytes, bytes + size};
}

}  // namespace

const char* kindName(FindingKind kind) {
    for (const KindName& row : kKindNames)
        if (row.kind == kind) return row.name;
    return "?";
}

bool parseKind(const std::string& text, FindingKind& kind) {
    for (const KindName& row : kKindNames) {
        if (text != row.name) continue;
        kind = row.kind;
        return true;
    }
    return false;
}

bool isGlobalPlatformResult(uint32_t result) {
    const std::string name = resultName(result);
    return name.rfind("TEEC_", 0) == 0;
}

// The TEE resources of one worker, touched only by its thread.
struct Executor::Worker {
    std::mutex mutex;
    std::condition_variable changed;
    std::function<void()> job;
    bool done = false;
    bool quit = false;
    bool abandoned = false;               // the caller gave up on the job: it writes nothing more
    std::atomic<int64_t> callStarted{0};  // ms; 0 while no TEE call is under way
    std::atomic<size_t> currentCall{0};
    std::thread thread;

    TEEC_Context context{};
    TEEC_SharedMemory block{};
    bool contextOpen = false;
    bool blockAllocated = false;

    Worker() = default;
    ~Worker() {
        if (blockAllocated) TEEC_ReleaseSharedMemory(&block);
        if (contextOpen) TEEC_FinalizeContext(&context);
    }

    template <typename F>
    auto timed(F call) {
        callStarted = std::max<int64_t>(nowMs(), 1);
        auto value = call();
        callStarted = 0;
        return value;
    }

    static void loop(std::shared_ptr<Worker> self) {
        // The harness's signals go to the thread that waits on this one: a ^C must not cut a TEE
        // call short, which a device's client library may answer as a communication error.
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        std::unique_lock<std::mutex> lock(self->mutex);
        for (;;) {
            self->changed.wait(lock, [&] { return self->job || self->quit; });
            if (self->quit) return;
            std::function<void()> job = std::move(self->job);
            self->job = nullptr;
            lock.unlock();
            job();
            lock.lock();
            self->done = true;
            self->changed.notify_all();
        }
    }

    // Context and block, kept from one sequence to the next.
    bool ready(Verdict& verdict) {
        uint32_t result = TEEC_SUCCESS;
        if (!contextOpen) {
            result = timed([&] { return TEEC_InitializeContext(nullptr, &context); });
            contextOpen = result == TEEC_SUCCESS;
        }
        if (contextOpen && !blockAllocated) {
            block.size = kBlockSize;
            block.flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
            result = timed([&] { return TEEC_AllocateSharedMemory(&context, &block); });
            blockAllocated = result == TEEC_SUCCESS;
        }
        if (blockAllocated) return true;
        verdict.kind = FindingKind::kSessionLost;
        verdict.result = result;
        verdict.origin = TEEC_ORIGIN_API;
        verdict.detail = "the TEE context or its shared memory could not be had";
        return false;
    }

    // Writes the call's fields; what the block does not take is dropped from the call.
    void write(Call& call) {
        std::memset(block.buffer, 0, kBlockSize);  // an all-zero block is an empty message
        CQeruWsm codec(&block);
        size_t written = 0;
        for (Field& field : call.fields) {
            bool put = false;
            if (field.type == Field::Type::kInt)
                put = codec.PutInt(static_cast<int>(field.value));
            else if (field.type == Field::Type::kUint)
                put = codec.PutUint(field.value);
            else if (!field.fill)
                put = codec.PutBlob(field.bytes.data(), static_cast<unsigned>(field.bytes.size()));
            else {
                // The codec's overhead is its own business: the largest blob it takes is found
                // by asking, each refusal writing nothing.
                field.bytes.resize(kBlockSize, 0x41);
                for (uint32_t size = kBlockSize; size > 0 && !put; --size)
                    if ((put = codec.PutBlob(field.bytes.data(), size))) field.bytes.resize(size);
                field.fill = false;
            }
            if (!put) break;
            ++written;
        }
        call.fields.resize(written);
    }

    // Kept only while the caller still waits for this job.
    void record(std::vector<Answer>* answers, size_t call, Answer answer) {
        if (!answers) return;
        std::lock_guard<std::mutex> lock(mutex);
        if (!abandoned) (*answers)[call] = std::move(answer);
    }

    Answer answerOf(const Call& call, TEEC_Result result, uint32_t origin) {
        Answer answer{Answer::Status::kAnswered, result, origin, false, {}};
        answer.decoded = result == TEEC_SUCCESS && wellFormed(call) &&
                         readReply(block, *findCommand(call.ta, call.id), &answer.reply).empty();
        if (!answer.decoded) answer.reply = {Field::blob(rawBlock(block))};
        return answer;
    }

    Verdict run(Sequence& sequence, bool checkSessions, std::vector<Answer>* answers) {
        Verdict verdict;
        currentCall = 0;
        if (!ready(verdict)) {
            if (!sequence.empty())
                record(answers, 0,
                       {Answer::Status::kNoSession, verdict.result, verdict.origin, false, {}});
            return verdict;
        }
        {
            // Calls after a finding are not sent, but their fields are settled all the same.
            std::lock_guard<std::mutex> lock(mutex);
            if (abandoned) return verdict;
            for (Call& call : sequence) write(call);
        }
        TEEC_Session sessions[2]{};
        bool open[2] = {false, false};
        bool used[2] = {false, false};
        for (size_t i = 0; i < sequence.size() && verdict.kind == FindingKind::kNone; ++i) {
            Call& call = sequence[i];
            const int ta = static_cast<int>(call.ta);
            currentCall = i;
            used[ta] = true;
            if (!open[ta]) {
                uint32_t origin = 0;
                const TEEC_Result opened = timed([&] {
                    return TEEC_OpenSession(&context, &sessions[ta], &taUuid(call.ta),
                                            TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin);
                });
                if (opened != TEEC_SUCCESS) {
                    record(answers, i, {Answer::Status::kNoSession, opened, origin, false, {}});
                    verdict = {FindingKind::kSessionLost,
                               i,
                               opened,
                               origin,
                               std::string("no session to ") + taName(call.ta),
                               verdict.callsRun};
                    break;
                }
                open[ta] = true;
            }
            {
                std::lock_guard<std::mutex> lock(mutex);
                if (abandoned) return verdict;
                write(call);
            }
            TEEC_Operation operation{};
            operation.paramTypes =
                TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INOUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
            operation.params[0].memref.parent = &block;
            operation.params[0].memref.offset = 0;
            operation.params[0].memref.size = kBlockSize;
            uint32_t origin = 0;
            const TEEC_Result result = timed(
                [&] { return TEEC_InvokeCommand(&sessions[ta], call.id, &operation, &origin); });
            ++verdict.callsRun;
            verdict.call = i;
            verdict.result = result;
            verdict.origin = origin;
            judge(call, result, origin, verdict);
            if (answers) record(answers, i, answerOf(call, result, origin));
            // A TEE that is gone takes the session with it: closing it could only block.
            if (verdict.kind == FindingKind::kCommsError || verdict.kind == FindingKind::kTaDead)
                open[ta] = false;
        }
        for (int ta = 0; ta < 2; ++ta)
            if (open[ta])
                timed([&] {
                    TEEC_CloseSession(&sessions[ta]);
                    return 0;
                });
        if (verdict.kind != FindingKind::kNone || !checkSessions) return verdict;
        for (int ta = 0; ta < 2; ++ta) {
            if (!used[ta]) continue;
            currentCall = sequence.size();
            TEEC_Session session{};
            uint32_t origin = 0;
            const TEEC_Result opened = timed([&] {
                return TEEC_OpenSession(&context, &session, &taUuid(static_cast<Ta>(ta)),
                                        TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin);
            });
            if (opened != TEEC_SUCCESS)
                return {FindingKind::kSessionLost,
                        sequence.size(),
                        opened,
                        origin,
                        std::string("no session to ") + taName(static_cast<Ta>(ta)) +
                            " after the commands",
                        verdict.callsRun};
            timed([&] {
                TEEC_CloseSession(&session);
                return 0;
            });
        }
        return verdict;
    }

    void judge(const Call& call, TEEC_Result result, uint32_t origin, Verdict& verdict) {
        if (result == TEEC_ERROR_TARGET_DEAD) {
            verdict.kind = FindingKind::kTaDead;
            verdict.detail = "the TA died";
        } else if ((result == TEEC_ERROR_GENERIC && origin == TEEC_ORIGIN_COMMS) ||
                   result == TEEC_ERROR_COMMUNICATION) {
            verdict.kind = FindingKind::kCommsError;
            verdict.detail = "the communication layer failed: the TEE died";
        } else if (!isGlobalPlatformResult(result)) {
            verdict.kind = FindingKind::kNonGpResult;
            verdict.detail = "result " + describeResult(result) + " is no GlobalPlatform code";
        } else if (result == TEEC_SUCCESS && wellFormed(call)) {
            const std::string broken = readReply(block, *findCommand(call.ta, call.id), nullptr);
            if (!broken.empty()) {
                verdict.kind = FindingKind::kReplyShape;
                verdict.detail = broken;
            }
        }
    }
};

Executor::Executor(unsigned timeoutMilliseconds) : timeoutMilliseconds_(timeoutMilliseconds) {
    renew();
}

Executor::~Executor() {
    {
        std::lock_guard<std::mutex> lock(worker_->mutex);
        worker_->quit = true;
    }
    worker_->changed.notify_all();
    // A worker still inside a hung call cannot be joined; it ends with the process.
    if (worker_->callStarted == 0)
        worker_->thread.join();
    else
        worker_->thread.detach();
}

void Executor::renew() {
    if (worker_) {
        {
            std::lock_guard<std::mutex> lock(worker_->mutex);
            worker_->quit = true;
        }
        worker_->changed.notify_all();
        worker_->thread.detach();  // it exits as soon as it is out of any call
    }
    worker_ = std::make_shared<Worker>();
    worker_->thread = std::thread(Worker::loop, worker_);
}

Verdict Executor::run(Sequence& sequence, bool checkSessions, std::vector<Answer>* answers) {
    // The worker writes into its own copy: an abandoned one must not touch the caller's.
    struct Shared {
        Sequence sequence;
        Verdict verdict;
        std::vector<Answer> answers;
    };
    auto shared = std::make_shared<Shared>(
        Shared{sequence, {}, std::vector<Answer>(answers ? sequence.size() : 0)});
    std::shared_ptr<Worker> worker = worker_;
    {
        std::lock_guard<std::mutex> lock(worker->mutex);
        worker->done = false;
        worker->job = [worker = worker.get(), shared, checkSessions, keep = answers != nullptr] {
            shared->verdict =
                worker->run(shared->sequence, checkSessions, keep ? &shared->answers : nullptr);
        };
    }
    worker->changed.notify_all();
    std::unique_lock<std::mutex> lock(worker->mutex);
    const auto step = std::chrono::milliseconds(std::min(50u, std::max(1u, timeoutMilliseconds_)));
    while (!worker->done) {
        worker->changed.wait_for(lock, step);
        const int64_t started = worker->callStarted;
        if (worker->done || started == 0 || timeoutMilliseconds_ == 0 ||
            nowMs() - started < static_cast<int64_t>(timeoutMilliseconds_))
            continue;
        Verdict verdict;
        verdict.kind = FindingKind::kHang;
        verdict.call = worker->currentCall;
        verdict.detail = "no answer within " + std::to_string(timeoutMilliseconds_) + " ms";
        worker->abandoned = true;
        sequence = shared->sequence;  // as written up to the hang; the worker writes no more of it
        if (answers) {
            *answers = shared->answers;
            if (verdict.call < answers->size() &&
                (*answers)[verdict.call].status == Answer::Status::kUnsent)
                (*answers)[verdict.call].status = Answer::Status::kHang;
        }
        lock.unlock();
        renew();
        return verdict;
    }
    sequence = shared->sequence;
    if (answers) *answers = std::move(shared->answers);
    return shared->verdict;
}

}  // namespace zel::tc::fuzz
