#pragma once

#include <functional>

class QEventLoop;

// The shell's detached work: update checks, the package download and the
// settings save each run on a thread of their own that nobody waits for.
// Only the application, on its way out, stops their network waits and joins
// them, so that no worker outlives QApplication.
namespace BackgroundJobs {

// Any thread. Runs the job on a new thread; exceptions it throws are dropped.
void start(std::function<void()> job);
// GUI thread. Ends every local event loop that is waiting, joins every job,
// then accepts new jobs again.
void stopAll();
// Worker thread. Runs the loop until it quits or stopAll ends it; returns
// false without running it when stopAll is under way.
bool exec(QEventLoop& loop);

} // namespace BackgroundJobs
