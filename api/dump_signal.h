// The dump signal, SIGRTMAX - 4. Its handler only posts a semaphore, which is safe in a signal
// handler; a dump thread, started with the first installation, writes the dump file.
#ifndef OBS_API_DUMP_SIGNAL_H
#define OBS_API_DUMP_SIGNAL_H

namespace obs {

int dump_signal_number();

// Installs the handler (again, when the host replaced it meanwhile) and starts the dump thread
// once per process.
void install_dump_signal();

}  // namespace obs

#endif
