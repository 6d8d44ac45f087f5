// Timers: only the names. The stand-in's heartbeat does not need them.
#pragma once

class Timer;
class TimerMgr;

extern TimerMgr* timer_mgr;
