/**
 * Counters of the Fibre Channel host adapters.
 */
#pragma once

#include "agent_common.h"

namespace zorvik
{

/**
 * Writes SCSI, the words every port received and sent. Nothing is written when `newWay` is 0;
 * `onlyMinimum` has no effect. Returns 0 or the error of a failed append.
 */
int show_scsi_status(int indent, int newWay, int onlyMinimum);

/**
 * Writes SCSI, or nothing on a host without such adapters. Returns 0 or the error of a failed
 * append.
 */
int scsi_status(int indent);

} // namespace zorvik
