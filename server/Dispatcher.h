/// Takes requests through the service on threads of its own: some for each kind of work, so that none waits for a
/// slower one.
#pragma once

#include <functional>
#include <memory>

#include "server/FairPool.h"
#include "server/Service.h"
#include "server/Spool.h"

namespace dsessd {

class Dispatcher {
  public:
    /// What is called with an answer, on some thread. When the answer has a rest, that is what comes out of the spool.
    using Reply = std::function<void(Answer answer, std::shared_ptr<Spool> rest)>;
    /// What is called, on some thread, when the spool of an answer has more.
    using Wake = std::function<void()>;

    Dispatcher(Service& service, Log& log) : m_service(service), m_log(log) {}
    ~Dispatcher();
    Dispatcher(const Dispatcher&) = delete;
    Dispatcher& operator=(const Dispatcher&) = delete;

    /// Each request gets its reply, unless the dispatcher goes before.
    void submit(SecretBuffer request, Peer peer, std::shared_ptr<Patience> patience, Reply reply, Wake wake);

    /// To be called every now and then: tells those who have waited too long for their turn.
    void tick();

  private:
    struct Job;
    FairPool& poolOf(Service::Lane lane);
    void post(const std::shared_ptr<Job>& job, Service::Lane lane);
    void step(const std::shared_ptr<Job>& job, Service::Lane lane);
    void deliver(Job& job);
    static void giveUp(const Job& job);

    Service& m_service;
    Log& m_log;
    FairPool m_quick{8, 8};
    FairPool m_logins{2, 2};
    FairPool m_listings{3, 2};
    FairPool m_anonymousListings{3, 2};
    FairPool m_changes{1, 1};
};

}  // namespace dsessd
