#include "server/Dispatcher.h"

#include <exception>

namespace dsessd {

namespace {

using Lane = Service::Lane;

constexpr std::chrono::milliseconds kUntilThereIsMemory{10};

}  // namespace

struct Dispatcher::Job {
    std::shared_ptr<Service::Call> call;
    std::shared_ptr<Patience> patience;
    Reply reply;
    Wake wake;
};

Dispatcher::~Dispatcher() {
    // They post to each other, so all are stopped before the first goes.
    for (FairPool* pool : {&m_quick, &m_logins, &m_listings, &m_anonymousListings, &m_changes}) {
        pool->stop();
    }
}

void Dispatcher::submit(SecretBuffer request, Peer peer, std::shared_ptr<Patience> patience, Reply reply, Wake wake) {
    auto job = std::make_shared<Job>();
    job->patience = patience;
    job->reply = std::move(reply);
    job->wake = std::move(wake);
    job->call = m_service.receive(std::move(request), std::move(peer), std::move(patience));
    post(job, Lane::kQuick);
}

void Dispatcher::post(const std::shared_ptr<Job>& job, Lane lane) {
    poolOf(lane).post(Service::peerOf(*job->call), [this, job, lane] { step(job, lane); });
}

FairPool& Dispatcher::poolOf(Lane lane) {
    return lane == Lane::kLogin              ? m_logins
           : lane == Lane::kListing          ? m_listings
           : lane == Lane::kAnonymousListing ? m_anonymousListings
           : lane == Lane::kChange           ? m_changes
                                             : m_quick;
}

void Dispatcher::tick() {
    for (const Lane lane : {Lane::kLogin, Lane::kListing, Lane::kAnonymousListing, Lane::kChange}) {
        const auto before = FairPool::Clock::now() - Service::longestWait(lane);
        while (const FairPool::Task late = poolOf(lane).takeBack(before)) {
            late();  // nothing but a refusal
        }
    }
}

void Dispatcher::step(const std::shared_ptr<Job>& job, Lane lane) {
    try {
        const Lane next = m_service.advance(*job->call, lane);
        if (next == Lane::kDone) {
            deliver(*job);
        } else {
            post(job, next);
        }
    } catch (const std::exception& error) {
        m_log.failed("a request ended in failure", error);
        giveUp(*job);
    }
}

void Dispatcher::giveUp(const Job& job) {
    for (;;) {
        try {
            Answer answer;
            answer.httpStatus = 500;
            job.reply(std::move(answer), nullptr);
            return;
        } catch (const std::bad_alloc&) {
            if (Patience::Clock::now() > job.patience->stop()) {
                return;
            }
            std::this_thread::sleep_for(kUntilThereIsMemory);
        }
    }
}

void Dispatcher::deliver(Job& job) {
    Answer answer = Service::answerOf(*job.call);
    job.call.reset();
    const std::unique_ptr<ListingAnswer> rest = std::move(answer.rest);
    if (rest == nullptr) {
        job.reply(std::move(answer), nullptr);
        return;
    }
    const auto spool = std::make_shared<Spool>(job.wake);
    job.reply(std::move(answer), spool);
    try {
        for (std::string piece; !(piece = rest->next()).empty();) {
            spool->append(std::move(piece));
        }
        spool->end(true);
    } catch (const std::exception& error) {
        if (Patience::Clock::now() < job.patience->leave()) {
            m_log.failed("a listing broke off", error);
        }
        spool->end(false);
    }
}

}  // namespace dsessd
