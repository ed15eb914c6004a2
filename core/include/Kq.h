// Kq.h: the whole public interface of the KQ library. An application may
// include just this header and link KQ::kq (or `pkg-config --libs kq`).
#pragma once

#include "KqOutput.h"
#include "KqCore.h"
#include "KqTime.h"
#include "KqSync.h"
#include "KqThread.h"
#include "KqDaemon.h"
#include "KqWakeUpTimer.h"
#include "KqSchedule.h"
#include "KqAddress.h"
#include "KqNamedQ.h"
#include "KqSocket.h"
#include "KqRs232.h"
#include "KqEnvBlock.h"
#include "KqFile.h"
#include "KqTarBall.h"
