// The database may only be rewritten while nothing else of the platform uses it.
#pragma once

// Sends SIGTERM to every map GUI process, then, if the database service runs, stops the platform
// with its own stop command. Does not wait for anything but that command. Ends the process with
// status 1 when no pipe or shell can be had to read the process list; what the shell then cannot do
// reads as an empty list.
void checkDaemons();

// The two halves: end the map GUIs in the order of the process list; 1 when the database service
// runs, else 0.
void stopMapGuis();
int databaseDaemonRunning();
