#include "session/SocketServer.h"

// Placeholder handlers: until they are written each answers as an unknown command does.
void SocketServer::defaultPath() { invalidCommand(); }
void SocketServer::parentFolder() { invalidCommand(); }
void SocketServer::pathExists() { invalidCommand(); }
void SocketServer::folderInfo() { invalidCommand(); }
void SocketServer::foldersInFolder() { invalidCommand(); }
void SocketServer::filesInFolder() { invalidCommand(); }
void SocketServer::allFilesInFolder() { invalidCommand(); }
void SocketServer::calculateFileHash() { invalidCommand(); }
void SocketServer::recurseFolder(const std::string&, bool) {}
