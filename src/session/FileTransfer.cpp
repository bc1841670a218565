#include "session/SocketServer.h"

// Placeholder handlers: until they are written each answers as an unknown command does.
void SocketServer::downloadFiles() { invalidCommand(); }
void SocketServer::uploadFiles() { invalidCommand(); }
