/* Compile-time proof of the record layouts shared with the host, for 64-bit
 * (LP64) and 32-bit (ILP32, the gateway's MIPS32) targets. The library
 * includes it; a host may include it to prove that it sees the same layout. */
#ifndef QDQUICK_RECORD_LAYOUT_H
#define QDQUICK_RECORD_LAYOUT_H

#include <stddef.h>

#include "qdplatform.h"
#include "qdquick.h"

#ifdef __cplusplus
#define QDQ_LAYOUT(name, cond) static_assert(cond, #name)
#else
#define QDQ_LAYOUT(name, cond) typedef char qdq_layout_##name[(cond) ? 1 : -1]
#endif

#define QDQ_ILP32 (sizeof(void *) == 4)
/* Offset that differs by word size: 32-bit value first. */
#define QDQ_W(v32, v64) (QDQ_ILP32 ? (v32) : (v64))

QDQ_LAYOUT(pi_port, offsetof(platinfo, port) == 128);
QDQ_LAYOUT(pi_interval, offsetof(platinfo, interval) == 132);
QDQ_LAYOUT(pi_localability, offsetof(platinfo, localability) == 136);
QDQ_LAYOUT(pi_localsrvport, offsetof(platinfo, localsrvport) == 140);
QDQ_LAYOUT(pi_challengecode, offsetof(platinfo, challengecode) == 160);
QDQ_LAYOUT(pi_curip, offsetof(platinfo, curip) == 224);
QDQ_LAYOUT(pi_heartbeatip, offsetof(platinfo, heartbeatip) == 288);
QDQ_LAYOUT(pi_heartbeatport, offsetof(platinfo, heartbeatport) == 352);
QDQ_LAYOUT(pi_hbreplied, offsetof(platinfo, hbreplied) == 356);
QDQ_LAYOUT(pi_tcpflag, offsetof(platinfo, tcpflag) == 360);
QDQ_LAYOUT(pi_tid, offsetof(platinfo, tid) == QDQ_W(364, 368));
QDQ_LAYOUT(pi_socketfd, offsetof(platinfo, socketfd) == QDQ_W(368, 376));
QDQ_LAYOUT(pi_devrnd, offsetof(platinfo, devrnd) == QDQ_W(372, 380));
QDQ_LAYOUT(pi_reqkey, offsetof(platinfo, reqkey) == QDQ_W(408, 416));
QDQ_LAYOUT(pi_bootflag, offsetof(platinfo, bootflag) == QDQ_W(664, 672));
QDQ_LAYOUT(pi_firsthb, offsetof(platinfo, firsthb) == QDQ_W(668, 676));
QDQ_LAYOUT(pi_localport, offsetof(platinfo, localport) == QDQ_W(672, 680));
QDQ_LAYOUT(pi_localaddr, offsetof(platinfo, localaddr) == QDQ_W(676, 684));
QDQ_LAYOUT(pi_remoteaddr, offsetof(platinfo, remoteaddr) == QDQ_W(692, 700));
QDQ_LAYOUT(pi_localaddr6, offsetof(platinfo, localaddr6) == QDQ_W(708, 716));
QDQ_LAYOUT(pi_remoteaddr6, offsetof(platinfo, remoteaddr6) == QDQ_W(736, 744));
/* The four socket addresses fill exactly 88 bytes. */
QDQ_LAYOUT(pi_addr_block,
           offsetof(platinfo, regflag) - offsetof(platinfo, localaddr) == 88);
QDQ_LAYOUT(pi_regflag, offsetof(platinfo, regflag) == QDQ_W(764, 772));
QDQ_LAYOUT(pi_isinreg, offsetof(platinfo, isinreg) == QDQ_W(765, 773));
QDQ_LAYOUT(pi_nexttimer, offsetof(platinfo, nexttimer) == QDQ_W(766, 774));
QDQ_LAYOUT(pi_hbfailnum, offsetof(platinfo, hbfailnum) == QDQ_W(769, 777));
QDQ_LAYOUT(pi_status, offsetof(platinfo, status) == QDQ_W(770, 778));
QDQ_LAYOUT(pi_size, sizeof(platinfo) == QDQ_W(836, 848));

QDQ_LAYOUT(di_hardwarever, offsetof(struct deviceinfo, hardwarever) == 64);
QDQ_LAYOUT(di_model, offsetof(struct deviceinfo, model) == 128);
QDQ_LAYOUT(di_devsn, offsetof(struct deviceinfo, devsn) == 384);
QDQ_LAYOUT(di_mac, offsetof(struct deviceinfo, mac) == 640);
QDQ_LAYOUT(di_cardflag, offsetof(struct deviceinfo, cardflag) == 768);
QDQ_LAYOUT(di_loid, offsetof(struct deviceinfo, loid) == 832);
QDQ_LAYOUT(di_ipaddr, offsetof(struct deviceinfo, ipaddr) == 1088);
QDQ_LAYOUT(di_areacode, offsetof(struct deviceinfo, areacode) == 1408);
QDQ_LAYOUT(di_pppoename, offsetof(struct deviceinfo, pppoename) == 1440);
QDQ_LAYOUT(di_ipmode, offsetof(struct deviceinfo, ipmode) == 1512);
QDQ_LAYOUT(di_regtype, offsetof(struct deviceinfo, regtype) == 1517);
QDQ_LAYOUT(di_cuberegistered, offsetof(struct deviceinfo, cuberegistered) == 1518);
QDQ_LAYOUT(di_size, sizeof(struct deviceinfo) == 1519);

QDQ_LAYOUT(sa_port, offsetof(serveraddr, port) == 64);
QDQ_LAYOUT(sa_size, sizeof(serveraddr) == 68);

QDQ_LAYOUT(ci_version, offsetof(cplugininstinfo, version) == 128);
QDQ_LAYOUT(ci_url, offsetof(cplugininstinfo, url) == 192);
QDQ_LAYOUT(ci_type, offsetof(cplugininstinfo, type) == 320);
QDQ_LAYOUT(ci_right, offsetof(cplugininstinfo, right) == 328);
QDQ_LAYOUT(ci_visibility, offsetof(cplugininstinfo, visibility) == 336);
QDQ_LAYOUT(ci_architecture, offsetof(cplugininstinfo, architecture) == 344);
QDQ_LAYOUT(ci_kernelversion, offsetof(cplugininstinfo, kernelversion) == 352);
QDQ_LAYOUT(ci_entryfile, offsetof(cplugininstinfo, entryfile) == 384);
QDQ_LAYOUT(ci_provides, offsetof(cplugininstinfo, provides) == 512);
QDQ_LAYOUT(ci_description, offsetof(cplugininstinfo, description) == 640);
QDQ_LAYOUT(ci_upgradeid, offsetof(cplugininstinfo, upgradeid) == 768);
QDQ_LAYOUT(ci_cpu, offsetof(cplugininstinfo, cpu) == 836);
QDQ_LAYOUT(ci_physicalram, offsetof(cplugininstinfo, physicalram) == 840);
QDQ_LAYOUT(ci_virtualram, offsetof(cplugininstinfo, virtualram) == 844);
QDQ_LAYOUT(ci_disk, offsetof(cplugininstinfo, disk) == 848);
QDQ_LAYOUT(ci_socket, offsetof(cplugininstinfo, socket) == 852);
QDQ_LAYOUT(ci_runflag, offsetof(cplugininstinfo, runflag) == 856);
QDQ_LAYOUT(ci_size, sizeof(cplugininstinfo) == 860);

QDQ_LAYOUT(pr_version, offsetof(pluginpushresult, version) == 4);
QDQ_LAYOUT(pr_upgradeid, offsetof(pluginpushresult, upgradeid) == 100);
QDQ_LAYOUT(pr_name, offsetof(pluginpushresult, name) == 164);
QDQ_LAYOUT(pr_size, sizeof(pluginpushresult) == 228);

QDQ_LAYOUT(um_version, offsetof(upgrademsg, version) == 4);
QDQ_LAYOUT(um_errcode, offsetof(upgrademsg, errcode) == 36);
QDQ_LAYOUT(um_upgradeid, offsetof(upgrademsg, upgradeid) == 100);
QDQ_LAYOUT(um_name, offsetof(upgrademsg, name) == 164);
QDQ_LAYOUT(um_size, sizeof(upgrademsg) == 228);

QDQ_LAYOUT(tk_access_token, offsetof(apptokeninfo, access_token) == 4);
QDQ_LAYOUT(tk_expire_in, offsetof(apptokeninfo, expire_in) == 1028);
QDQ_LAYOUT(tk_scope, offsetof(apptokeninfo, scope) == 1032);
QDQ_LAYOUT(tk_error, offsetof(apptokeninfo, error) == 1160);
QDQ_LAYOUT(tk_error_description, offsetof(apptokeninfo, error_description) == 1192);
QDQ_LAYOUT(tk_size, sizeof(apptokeninfo) == 2216);

QDQ_LAYOUT(ui_DownloadURL, offsetof(appurlinfo, DownloadURL) == 128);
QDQ_LAYOUT(ui_ServerURL1, offsetof(appurlinfo, ServerURL1) == 256);
QDQ_LAYOUT(ui_size, sizeof(appurlinfo) == 384);

#endif
