/* Ids of the prompts of pxmSetUI.dll, shared by their dialog templates and by tests that find and
   drive them. Plain defines only: read by C, C++ and the resource compiler. */
#ifndef SETUI_IDS_H
#define SETUI_IDS_H

/* The prompt is a dialog of class "#32770" with one of these titles: family 1 is HTTP, any other SOCKS.
   The title is set last when the prompt opens, so a prompt found by its title shows its texts already. */
#define SETUI_PROMPT_CLASS "#32770"
#define SETUI_TITLE_SOCKS "SOCKS proxy password"
#define SETUI_TITLE_HTTP "HTTP proxy password"

/* Dialog template and controls. OK and Cancel are IDOK (1) and IDCANCEL (2). */
#define SETUI_IDD_PASSWORD 100
#define SETUI_IDC_MESSAGE 1001  /* static: which proxy asks */
#define SETUI_IDC_USER 1002     /* static: the proxy user name as given */
#define SETUI_IDC_ADDRESS 1003  /* static: the proxy address as given */
#define SETUI_IDC_PASSWORD 1004 /* edit, masked; takes at most maxLength - 1 characters */

/* Results of PXMSETUIDLL_DxsocksPwd; only SETUI_RESULT_OK hands out a text. */
#define SETUI_RESULT_FAILED 0    /* no text pointer, a maxLength below 2, or no dialog could be made */
#define SETUI_RESULT_OK 1        /* OK: a password was entered, which may be empty */
#define SETUI_RESULT_CANCELLED 2 /* Cancel, Esc or the close box */
#define SETUI_RESULT_TIMED_OUT 3 /* closed by PXMSETUIDLL_OnTimeout */

/* Strings of the prompt. */
#define SETUI_IDS_TITLE_SOCKS 1
#define SETUI_IDS_TITLE_HTTP 2
#define SETUI_IDS_MESSAGE_SOCKS 3
#define SETUI_IDS_MESSAGE_HTTP 4

/* The first-use prompt (PXMSETUIDLL_DxsocksConfig): a program wants a proxy and none is configured.
   A dialog of class "#32770" with one of these titles, family 1 HTTP, any other SOCKS; the title is
   set last. Configure runs the family's editor of the loaded DXSOCKS.DLL; its results are the
   SETUI_RESULT_... values: OK when the editor saved, CANCELLED for Cancel, Esc, the close box or no
   editor to run, TIMED_OUT when PXMSETUIDLL_OnTimeout closed it and the editor it opened. */
#define SETUI_TITLE_CONFIG_SOCKS "SOCKS proxy not configured"
#define SETUI_TITLE_CONFIG_HTTP "HTTP proxy not configured"
#define SETUI_IDD_CONFIG 101
#define SETUI_IDC_CONFIG_MESSAGE 1011 /* static: the program's file name and what it wants */
#define SETUI_IDC_CONFIGURE 1012      /* button: runs the editor */
#define SETUI_IDS_CONFIG_TITLE_SOCKS 5
#define SETUI_IDS_CONFIG_TITLE_HTTP 6
#define SETUI_IDS_CONFIG_MESSAGE_SOCKS 7 /* follows the program's file name */
#define SETUI_IDS_CONFIG_MESSAGE_HTTP 8

#endif /* SETUI_IDS_H */
