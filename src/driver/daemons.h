// The database may only be rewritten while nothing else of the platform uses it.
#pragma once

// Sends SIGTERM to every map GUI process, then, if the database service runs, stops the platform
// with its own stop command. Waits for that command alone. Ends the process with status 1 when the
// process list cannot be asked for (popen); a command that fails in the shell counts as an empty
// list.
void checkDaemons();

// The two halves: end the map GUIs in the order of the process list; 1 when the database service
// runs, else 0.
void stopMapGuis();
int databaseDaemonRunning();
