// The driver model: everything that a WDM driver calls, one header per kernel component.
#pragma once
#include <ntdef.h>
#include <ntstatus.h>

#include <wdm/etw.h>
#include <wdm/ex.h>
#include <wdm/io.h>
#include <wdm/irp.h>
#include <wdm/ke.h>
#include <wdm/list.h>
#include <wdm/po.h>
#include <wdm/ps.h>
#include <wdm/rtl.h>
#include <wdm/zw.h>
