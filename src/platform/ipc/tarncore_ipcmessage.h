#pragma once
// The IPC library in one include: message record and frame, server, client,
// signature whitelist.
#include "platform/ipc/ipc_client.h"
#include "platform/ipc/ipc_message.h"
#include "platform/ipc/ipc_server.h"
#include "platform/ipc/signature_manager.h"
