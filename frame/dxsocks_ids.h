/* Resource ids of DXSOCKS.DLL's resource library: strings, numbered reports, dialog templates, controls,
   bitmaps and help pages. The numbers are fixed: a resource library of any language carries the same ids.
   Plain defines only: read by C++ and by the resource compiler (companion/resources/DXSOCKS_0409.rc). */
#ifndef DXSOCKS_IDS_H
#define DXSOCKS_IDS_H

/* Strings of the configuration dialogs. */
#define IDS_COLUMN_DESTINATION 1 /* column titles of the map list */
#define IDS_COLUMN_PROXY 2
#define IDS_COLUMN_USER 3
#define IDS_VIEW_TO_FULL 4   /* the view switch's text in the simple view */
#define IDS_VIEW_TO_SIMPLE 5 /* the view switch's text in the full view */
#define IDS_PORT_COUNT 100   /* decimal: how many port entries follow from IDS_PORT_FIRST on */
#define IDS_PORT_FIRST 101   /* the first port entry, also the text of the wildcard port */
#define IDS_DIRECT 300       /* the proxy column of a map without a proxy */
#define IDS_ANY_HOST 301     /* the text of the wildcard host; at most 31 characters */
#define IDS_HOST_PORT 302    /* format of a host with its port: two %s */
#define IDS_ADD_MAP_TITLE 304
#define IDS_SOCKS_DIALOG_OPEN 500 /* a SOCKS configuration dialog is open elsewhere: text, then caption */
#define IDS_SOCKS_DIALOG_TITLE 501
#define IDS_SHIM_WARNING 502 /* another socket shim runs: text, then caption */
#define IDS_SHIM_TITLE 503
#define IDS_HTTP_DIALOG_OPEN 504 /* an HTTP configuration dialog is open elsewhere: text, then caption */
#define IDS_HTTP_DIALOG_TITLE 505
#define IDS_SOCKS_VERSION_4 551 /* the entries of the version combo box */
#define IDS_SOCKS_VERSION_5 552

/* Numbered reports of the log: each string is a printf format of the arguments named. */
#define IDR_PROXY_UNRESOLVED 1001      /* host text */
#define IDR_CONNECT_DIRECT 1002        /* address text, port, socket */
#define IDR_CONNECT_THROUGH_PROXY 1003 /* address text, port, socket */
#define IDR_ATTACHED 1005              /* host program's path, this library's path */
#define IDR_DETACHED 1006              /* host program's path, this library's path */
#define IDR_CONNECT_REQUEST_DUE 2000   /* address text, port, socket */
#define IDR_BIND_REQUEST_DUE 2001      /* address text, port, socket */
#define IDR_SOCKS4_GRANTED 2002        /* socket */
#define IDR_SOCKS4_REJECTED 2003       /* socket */
#define IDR_SOCKS4_NO_IDENT 2004       /* socket */
#define IDR_SOCKS4_IDENT_MISMATCH 2005 /* socket */
#define IDR_SOCKS4_UNKNOWN_CODE 2006   /* reply code, socket */

/* Dialog templates. */
#define IDD_SOCKS_MAIN 102
#define IDD_SOCKS_MAP 103
#define IDD_HTTP_MAIN 104
#define IDD_HTTP_MAP 105

/* Controls of the configuration dialogs; OK and Cancel are IDOK and IDCANCEL. */
#define IDC_DESTINATION_ADDRESS 1004
#define IDC_DESTINATION_PORT 1005
#define IDC_DIRECT 1008 /* checked: this map's destinations connect without a proxy */
#define IDC_ADD 1012
#define IDC_EDIT 1013
#define IDC_REMOVE 1014
#define IDC_MAP_LIST 1016
#define IDC_PROXY_PORT 1021
#define IDC_PROXY_USER 1022
#define IDC_MOVE_UP 1026
#define IDC_MOVE_DOWN 1027
#define IDC_VIEW_SWITCH 1028 /* in the map dialog: gathers as OK does */
#define IDC_PROXY_ADDRESS 1029
#define IDC_PROXY_LABEL_1031 1031 /* labels, never read or written */
#define IDC_PROXY_LABEL_1033 1033
#define IDC_SIMPLE_LABEL_1034 1034
#define IDC_PROXY_LABEL_1035 1035
#define IDC_PROXY_LABEL_1036 1036
#define IDC_FULL_LABEL_1037 1037
#define IDC_FULL_VIEW_BOTTOM 1038 /* its lower edge is the lower edge of the full view */
#define IDC_FULL_LABEL_1039 1039
#define IDC_FULL_LABEL_1040 1040
#define IDC_VERSION_LABEL 1041
#define IDC_PROTOCOL_VERSION 1043
#define IDC_FULL_LABEL_1045 1045
#define IDC_FULL_LABEL_1046 1046
#define IDC_FULL_LABEL_1047 1047
#define IDC_BASIC_AUTHENTICATION 1049

/* Bitmaps of the image buttons. */
#define IDB_IMAGE_BUTTON 103        /* image list of a button whose style bit 1 is clear */
#define IDB_IMAGE_BUTTON_STYLE2 104 /* ... and of one whose style bit 1 (value 2) is set */

/* Help pages of the suite library's viewer. */
#define IDH_SOCKS_CONFIGURATION 2002
#define IDH_HTTP_CONFIGURATION 2004

#endif /* DXSOCKS_IDS_H */
