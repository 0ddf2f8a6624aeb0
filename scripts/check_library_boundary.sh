#!/usr/bin/env bash
# The module library may only depend on its collaborators (services and
# registry), cJSON, and the C runtime. Anything else it needs undefined
# means something that belongs outside the module got linked into it, or
# the module reached for a service it has no contract for.
set -euo pipefail
lib="$1"

collaborators='
Malloc Free CreateMutexAndInit MutexLock MutexUnLock ReleaseMutex
CreateAndInitSemaphore WaitSemaphore PostSemaphore ReleaseSemaphore
uni_time_get_posix uni_get_system_time PrintLog PrintLogRaw
system_timer_init cmmod_init cmmod_get_free_msgid cmmod_reg_msgcb cmmod_unreg_msgcb
cmmod_post_msg_malloc cmmod_cr_tm_msg_hand cmmod_start_tm_msg cmmod_release_tm_msg
get_gw_cntl get_dev_cntl get_dev_cntl_unlock get_gw_dev_cntl get_dev_dp_cntl get_gw_nw_status
dev_update_grp_info dev_update_scene_info
cr_rfc_data get_rfc_data put_rfc_data
mqc_dp_report_async mqc_obj_dp_query mqc_prot_data_rept_seq get_mqc_conn_stat
lan_dp_sata_report lan_data_report_cb
kelo_base64_encode kelo_base64_decode
'
c_runtime='
memcpy memmove memset memcmp strlen strcmp strncmp strcasecmp strcpy strncpy strcat strchr strstr
snprintf sprintf vsnprintf atoi strtol rand __errno_location __stack_chk_fail
_GLOBAL_OFFSET_TABLE_ __dso_handle __cxa_atexit __cxa_pure_virtual
'

defined_here=$(nm -g --defined-only "$lib" 2>/dev/null | awk 'NF==3 {print $3}' | sort -u)
status=0
while read -r sym; do
  [ -z "$sym" ] && continue
  grep -qx -- "$sym" <<<"$defined_here" && continue
  case "$sym" in
    cJSON_*|__asan*|__ubsan*|__tsan*|__sanitizer*|__lsan*) continue ;;
  esac
  if grep -qw -- "$sym" <<<"$collaborators$c_runtime"; then
    continue
  fi
  echo "libsmart_frame.a needs a symbol outside its boundary: $sym"
  status=1
done < <(nm -u "$lib" | awk '$1=="U" {print $2}' | sort -u)

# every entry point keeps its C name
for entry in smart_frame_init sf_get_serial_no sf_inc_serial_no __locate_dp_ctl_by_dpid; do
  if ! grep -qx -- "$entry" <<<"$defined_here"; then
    echo "libsmart_frame.a does not define $entry with C linkage"
    status=1
  fi
done
if [ "$status" -eq 0 ]; then
  echo "library boundary holds: $(wc -l <<<"$defined_here") symbols defined"
fi
exit "$status"
