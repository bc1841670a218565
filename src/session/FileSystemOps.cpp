#include "session/SocketServer.h"

// Placeholder handlers: until they are written each answers as an unknown command does.
void SocketServer::createDirectories() { invalidCommand(); }
void SocketServer::deleteFiles() { invalidCommand(); }
void SocketServer::deleteFolders() { invalidCommand(); }
void SocketServer::renameFiles() { invalidCommand(); }
void SocketServer::freeSpace() { invalidCommand(); }
