// Base of every worker thread: owns the thread and its connect / execute / disconnect cycle.
#ifndef ORVD_CORE_ABSTRACT_WORKER_H
#define ORVD_CORE_ABSTRACT_WORKER_H

#include <string>
#include <thread>

#include "core/timer_processor.h"

class abstract_worker {
public:
    abstract_worker(const volatile bool& run, const char* name, int execute_pause_us, int reconnect_pause_us);
    virtual ~abstract_worker();

    abstract_worker(const abstract_worker&) = delete;
    abstract_worker& operator=(const abstract_worker&) = delete;

    void start();
    void join();
    bool connect();
    void disconnect();

    const std::string& get_name() const { return name; }

protected:
    // Opens the worker's link; true when it is usable.
    virtual bool __connect() = 0;
    // One round of work; true when nothing was done and the worker should pause.
    virtual bool execute() = 0;
    virtual void __disconnect() = 0;
    // Whether the execute loop may go on.
    virtual bool condition(const volatile bool& run) = 0;

    void func();

    bool started;
    // The result of the last connect; a subclass clears it to force a reconnect.
    bool alive;
    std::thread thread;
    const volatile bool& run;
    std::string name;
    timer_processor timers;
    int execute_pause_us;
    int reconnect_pause_us;
    int connected;
};

#endif
