#pragma once

#include <deque>
#include <map>
#include <set>
#include <string>

#include "IService.h"
#include "coupler/binder/sub-service/ISubServiceProxy.h"
#include "tv_sp.h"
#include "utils/Mutex.h"

namespace tavrin_binder {

// Tells a service of the registrations and removals of its sub-services,
// one name at a time and in the order they happened: for one registration
// onSubServiceRegistered comes first and onSubServiceRemoved after it has
// returned, or neither comes (the sub-service died before it was
// announced). The record handed to the service lives until its removal has
// been told.
//
// Nobody waits for anybody: the thread that finds a name's events idle tells
// them, and goes on with those that arrive for that name meanwhile; other
// threads only queue theirs. So a slow callback holds back the later events
// of its own name only.
//
// A member of a ServiceCarrier. Binder threads; mLock guards the queues and
// is never held while the service is called or a record released.
class SubServiceEvents {
  public:
    explicit SubServiceEvents(const tavrin::tv_sp<tavrin::IService>& service);
    SubServiceEvents(const SubServiceEvents&) = delete;
    SubServiceEvents& operator=(const SubServiceEvents&) = delete;

    // `record` was stored under `name`.
    void registered(const std::string& name, const tavrin::tv_sp<ISubServiceProxy>& record);
    // `record` left the registry: its sub-service died.
    void removed(const std::string& name, const tavrin::tv_sp<ISubServiceProxy>& record);

  private:
    struct Event {
        tavrin::tv_sp<ISubServiceProxy> record;
        bool registration = false;
    };
    struct Queue {
        std::deque<Event> pending;
        bool telling = false;                         // a thread is telling this name's events
        std::set<const ISubServiceProxy*> announced;  // registrations told, removals not yet
        std::set<const ISubServiceProxy*> gone;       // removals before their registrations
    };

    void post(const std::string& name, Event event);
    // Replaces *event, told, by the next event of `name` worth telling;
    // false when none is left.
    bool next(const std::string& name, Event* event);
    static bool worthTelling(Queue& queue, const Event& event);
    void tell(std::string name, const Event& event);

    const tavrin::tv_sp<tavrin::IService> mService;
    tavrin::Mutex mLock;  // guards mQueues
    std::map<std::string, Queue> mQueues;
};

}  // namespace tavrin_binder
