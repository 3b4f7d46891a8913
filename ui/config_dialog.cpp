#include "config_dialog.h"

#include <commctrl.h>

#include <cstdint>
#include <new>

#include "bounded_text.h"
#include "config_sets.h"
#include "decimal_text.h"
#include "dialog_text.h"
#include "dxsocks_ids.h"
#include "image_button.h"
#include "lifecycle.h"
#include "log.h"
#include "settings_file.h"
#include "suite_library.h"
#include "xml_registry.h"

namespace {

// Fields of the dialogs are read into this many characters, the terminator included.
constexpr int kFieldSize = 1025;
constexpr int kSimpleFieldSize = 1024;
// The map dialog's port list shows at most this many lines.
constexpr int kPortDropLines = 16;
// The help viewer's command for a dialog's page.
constexpr DWORD kHelpCommand = 5;
// The common-controls manifest of this library, activated around the dialogs.
constexpr WORD kControlsManifest = 2;
// The map dialog's open modes.
constexpr uint32_t kAddMode = 0;
constexpr uint32_t kEditMode = 1;

// What the two families' dialogs tell apart.
struct DialogFamily {
    ConfigFamily id;
    int mainTemplate;
    int mapTemplate;
    DWORD helpId;
    const char* defaultPort;
    const char* defaultUser;
    const char* atomName;
    // The busy message of ..._ConfigurationDialog; ..._ShowXMLConfigDlg of both families shows SOCKS's.
    UINT busyText;
    UINT busyTitle;
    DWORD xmlRegistryFamily;
    CProxyMapSet* (*set)();
    CProxyMap* (*newMap)();
    int (*readFromXml)();
    int (*readFromRegistry)();
    int (*writeConfiguration)();
    // The cell text of the list's first two columns, touched only on the dialog's thread.
    char (*cell)[kCellTextSize];
    // Simple view only, full view only: the main dialog's controls that each view shows.
    const int* simpleControls;
    int simpleCount;
    const int* fullControls;
    int fullCount;
    // The map dialog's proxy fields and their labels, enabled together.
    const int* proxyControls;
    int proxyCount;
};

char g_socksCell[kCellTextSize];
char g_httpCell[kCellTextSize];

const int kSocksSimple[] = {IDC_SIMPLE_LABEL_1034, IDC_PROXY_LABEL_1033, IDC_PROXY_ADDRESS, IDC_VERSION_LABEL,
                            IDC_PROTOCOL_VERSION};
const int kSocksFull[] = {IDC_FULL_LABEL_1039, IDC_FULL_LABEL_1037, IDC_FULL_LABEL_1040};
const int kSocksProxy[] = {IDC_PROXY_ADDRESS,    IDC_PROXY_PORT,       IDC_PROXY_USER,
                           IDC_PROXY_LABEL_1033, IDC_PROXY_LABEL_1036, IDC_PROXY_LABEL_1035,
                           IDC_PROXY_LABEL_1031, IDC_PROTOCOL_VERSION, IDC_VERSION_LABEL};
const int kHttpSimple[] = {IDC_SIMPLE_LABEL_1034, IDC_PROXY_LABEL_1033, IDC_PROXY_ADDRESS,        IDC_PROXY_LABEL_1036,
                           IDC_PROXY_PORT,        IDC_BASIC_AUTHENTICATION, IDC_PROXY_LABEL_1035, IDC_PROXY_USER};
const int kHttpFull[] = {IDC_FULL_LABEL_1045, IDC_FULL_LABEL_1046, IDC_FULL_LABEL_1047};
const int kHttpProxy[] = {IDC_PROXY_ADDRESS,    IDC_PROXY_PORT,       IDC_PROXY_USER,       IDC_PROXY_LABEL_1033,
                          IDC_PROXY_LABEL_1036, IDC_PROXY_LABEL_1035, IDC_PROXY_LABEL_1031, IDC_BASIC_AUTHENTICATION};

// The global sets, made here when the entry routine could not make them.
template <typename Set>
Set* EnsureSet(Set*& global) {
    if (global == nullptr) CreateConfigSets();
    return global;
}

const DialogFamily kSocksDialog = {
    ConfigFamily::kSocks, IDD_SOCKS_MAIN, IDD_SOCKS_MAP, IDH_SOCKS_CONFIGURATION, "1080", "Guest",
    "KVT_Verdane_SOCKS_Configuration", IDS_SOCKS_DIALOG_OPEN, IDS_SOCKS_DIALOG_TITLE, kXmlRegistrySocks,
    []() -> CProxyMapSet* { return EnsureSet(g_pSocksConfig); }, CSocksConfig::NewMap,
    []() { return g_pSocksConfig->ReadFromXml(); }, []() { return g_pSocksConfig->ReadFromRegistry(); },
    []() { return g_pSocksConfig->WriteConfiguration(); }, &g_socksCell, kSocksSimple,
    static_cast<int>(sizeof kSocksSimple / sizeof kSocksSimple[0]), kSocksFull,
    static_cast<int>(sizeof kSocksFull / sizeof kSocksFull[0]), kSocksProxy,
    static_cast<int>(sizeof kSocksProxy / sizeof kSocksProxy[0]),
};

const DialogFamily kHttpDialog = {
    ConfigFamily::kHttp, IDD_HTTP_MAIN, IDD_HTTP_MAP, IDH_HTTP_CONFIGURATION, "80", "",
    "KVT_Verdane_HTTP_Configuration", IDS_HTTP_DIALOG_OPEN, IDS_HTTP_DIALOG_TITLE, kXmlRegistryHttp,
    []() -> CProxyMapSet* { return EnsureSet(g_pHttpConfig); }, CHttpConfig::NewMap,
    []() { return g_pHttpConfig->ReadFromXml(); }, []() { return g_pHttpConfig->ReadFromRegistry(); },
    []() { return g_pHttpConfig->WriteConfiguration(); }, &g_httpCell, kHttpSimple,
    static_cast<int>(sizeof kHttpSimple / sizeof kHttpSimple[0]), kHttpFull,
    static_cast<int>(sizeof kHttpFull / sizeof kHttpFull[0]), kHttpProxy,
    static_cast<int>(sizeof kHttpProxy / sizeof kHttpProxy[0]),
};

const DialogFamily& FamilyOf(ConfigFamily id) { return id == ConfigFamily::kSocks ? kSocksDialog : kHttpDialog; }

bool IsSocks(const DialogFamily& family) { return family.id == ConfigFamily::kSocks; }

// The context of a main dialog, for one run: SocksConfigDialog or HttpConfigDialog by its family.
struct ConfigDialogContext {
    HWND dialog = nullptr;
    HWND list = nullptr;
    CProxyMapSet* config = nullptr;
    int32_t fullHeight = 0;
    int32_t width = 0;
    int32_t simpleHeight = 0;
    uint32_t simpleView = 1;
    DWORD helpId = 0;
    const DialogFamily* family = nullptr;
};
using SocksConfigDialog = ConfigDialogContext;
using HttpConfigDialog = ConfigDialogContext;

// The context of a map dialog, for one run: SocksMapDialog or HttpMapDialog by its family.
struct MapDialogContext {
    HWND dialog = nullptr;
    uint32_t savedUseProxy = 0;
    DWORD helpId = 0;
    uint32_t mode = kAddMode;
    CProxyMap* record = nullptr;
    const DialogFamily* family = nullptr;
};
using SocksMapDialog = MapDialogContext;
using HttpMapDialog = MapDialogContext;

CProxyMap* FirstMap(const CProxyMapSet* config) { return static_cast<CProxyMap*>(config->First()); }

void LoadText(UINT id, char* buffer, int size) {
    buffer[0] = '\0';
    if (g_resourceLibrary.LoadResourceString(id, buffer, size) <= 0) buffer[0] = '\0';
}

// A field's text, at most size - 1 characters; empty when the control is missing.
void FieldText(HWND dialog, int id, char* buffer, int size) {
    buffer[0] = '\0';
    HWND control = GetDlgItem(dialog, id);
    if (control != nullptr) GetWindowTextA(control, buffer, size);
    buffer[size - 1] = '\0';
}

bool IsChecked(HWND dialog, int id) { return SendDlgItemMessageA(dialog, id, BM_GETCHECK, 0, 0) == BST_CHECKED; }

void Enable(HWND dialog, int id, bool enabled) {
    HWND control = GetDlgItem(dialog, id);
    if (control != nullptr) EnableWindow(control, enabled ? TRUE : FALSE);
}

void Show(HWND dialog, int id, bool shown) {
    HWND control = GetDlgItem(dialog, id);
    if (control != nullptr) ShowWindow(control, shown ? SW_SHOW : SW_HIDE);
}

int SelectedRow(HWND list) {
    return static_cast<int>(SendMessageA(list, LVM_GETNEXTITEM, static_cast<WPARAM>(-1), LVNI_SELECTED));
}

void CentreOnParent(HWND dialog) {
    CPXMMSI suite(g_hModule, nullptr);
    suite.centerWindow(dialog, GetParent(dialog));
}

void ShowHelp(HWND dialog, DWORD helpId) {
    CPXMMSI suite(g_hModule, nullptr);
    suite.showHelpViewer(dialog, helpId, kHelpCommand);
}

// Entry ProtocolVersion - 4 of control 1043, 0 read as 4; a version that is neither selects nothing.
void SelectVersion(HWND dialog, const CProxyMap* record) {
    uint32_t version = record != nullptr ? record->ProtocolVersion : 4;
    if (version == 0) version = 4;
    SendDlgItemMessageA(dialog, IDC_PROTOCOL_VERSION, CB_SETCURSEL, static_cast<WPARAM>(version - 4), 0);
}

// Kept: no selection reads as -1, so a gather without one stores version 3.
uint32_t SelectedVersion(HWND dialog) {
    return static_cast<uint32_t>(SendDlgItemMessageA(dialog, IDC_PROTOCOL_VERSION, CB_GETCURSEL, 0, 0) + 4);
}

void FillVersionCombo(HWND dialog, const CProxyMap* record) {
    HWND combo = GetDlgItem(dialog, IDC_PROTOCOL_VERSION);
    if (combo == nullptr) return;
    SendMessageA(combo, CB_RESETCONTENT, 0, 0);
    for (UINT id : {IDS_SOCKS_VERSION_4, IDS_SOCKS_VERSION_5}) {
        wchar_t entry[64] = {};
        LoadStringW(g_resourceLibrary.GetHandle(), id, entry, 64);
        SendMessageW(combo, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(entry));
    }
    SelectVersion(dialog, record);
}

// A dialog's context: handed over as the creation parameter and kept in the window's user slot from
// WM_INITDIALOG on; null for a message that comes before.
template <typename Context>
Context* DialogContext(HWND dialog, UINT message, LPARAM lParam) {
    if (message == WM_INITDIALOG) {
        SetWindowLongPtrA(dialog, DWLP_USER, lParam);
        return reinterpret_cast<Context*>(lParam);
    }
    return reinterpret_cast<Context*>(GetWindowLongPtrA(dialog, DWLP_USER));
}

// WM_SYSCOMMAND of either dialog: context help opens the family's page and answers -1.
INT_PTR HelpCommand(HWND dialog, WPARAM command, DWORD helpId) {
    if ((command & 0xFFF0) != SC_CONTEXTHELP) return 0;
    ShowHelp(dialog, helpId);
    return -1;
}

// ----- The main dialog -----

void SelectionChanged(ConfigDialogContext* context) {
    HWND dialog = context->dialog;
    const int selected = SelectedRow(context->list);
    if (selected < 0) {
        Enable(dialog, IDC_MOVE_UP, false);
        Enable(dialog, IDC_MOVE_DOWN, false);
        Enable(dialog, IDC_REMOVE, false);
        return;
    }
    const int rows = static_cast<int>(SendMessageA(context->list, LVM_GETITEMCOUNT, 0, 0));
    Enable(dialog, IDC_MOVE_UP, selected >= 1);
    Enable(dialog, IDC_MOVE_DOWN, selected < rows - 1);
    Enable(dialog, IDC_REMOVE, true);
}

void FillList(ConfigDialogContext* context, int select) {
    HWND list = context->list;
    // Drawn once when filled, not once per row.
    SendMessageA(list, WM_SETREDRAW, FALSE, 0);
    SendMessageA(list, LVM_DELETEALLITEMS, 0, 0);
    int added = 0;
    int index = 0;
    for (CListNode* node = context->config->First(); node != nullptr; node = CLinkedList::Next(node), ++index) {
        LVITEMA item = {};
        item.mask = LVIF_TEXT | LVIF_STATE | LVIF_PARAM;
        item.iItem = index;
        if (index == select) {
            item.state = LVIS_FOCUSED | LVIS_SELECTED;
            item.stateMask = LVIS_FOCUSED | LVIS_SELECTED;
        }
        item.pszText = LPSTR_TEXTCALLBACKA;
        item.cchTextMax = kCellTextSize;
        item.lParam = reinterpret_cast<LPARAM>(static_cast<CProxyMap*>(node));
        int row = static_cast<int>(SendMessageA(list, LVM_INSERTITEMA, 0, reinterpret_cast<LPARAM>(&item)));
        if (row < 0) continue;
        ++added;
        for (int subItem = 1; subItem <= 2; ++subItem) {
            LVITEMA text = {};
            text.iSubItem = subItem;
            text.pszText = LPSTR_TEXTCALLBACKA;
            SendMessageA(list, LVM_SETITEMTEXTA, static_cast<WPARAM>(row), reinterpret_cast<LPARAM>(&text));
        }
    }
    SendMessageA(list, WM_SETREDRAW, TRUE, 0);
    InvalidateRect(list, nullptr, TRUE);
    SetFocus(list);
    Enable(context->dialog, IDC_VIEW_SWITCH, added < 2);
    // The list tells a selection change while rows are still to come, and tells none when no row is
    // selected: the buttons follow the filled list.
    SelectionChanged(context);
}

void ShowSimpleFields(ConfigDialogContext* context) {
    HWND dialog = context->dialog;
    const CProxyMap* first = FirstMap(context->config);
    SetDlgItemTextA(dialog, IDC_PROXY_ADDRESS, first != nullptr ? first->GetProxyAddress() : "");
    if (IsSocks(*context->family)) {
        SelectVersion(dialog, first);
    } else if (first != nullptr) {
        SetDlgItemTextA(dialog, IDC_PROXY_PORT, first->GetProxyPort());
        CheckDlgButton(dialog, IDC_BASIC_AUTHENTICATION, first->BasicAuthentication != 0 ? BST_CHECKED : BST_UNCHECKED);
        SetDlgItemTextA(dialog, IDC_PROXY_USER, first->GetProxyUser());
    }
    FillList(context, 0);
}

void ShowView(ConfigDialogContext* context, bool simple) {
    HWND dialog = context->dialog;
    SetWindowPos(dialog, nullptr, 0, 0, context->width, simple ? context->simpleHeight : context->fullHeight,
                 SWP_NOMOVE | SWP_NOZORDER);
    const DialogFamily& family = *context->family;
    for (int i = 0; i < family.fullCount; ++i) Show(dialog, family.fullControls[i], !simple);
    for (int i = 0; i < family.simpleCount; ++i) Show(dialog, family.simpleControls[i], simple);
    char text[256] = {};
    LoadText(simple ? IDS_VIEW_TO_FULL : IDS_VIEW_TO_SIMPLE, text, sizeof text);
    SetDlgItemTextA(dialog, IDC_VIEW_SWITCH, text);
}

// The simple view's fields into the first map, over the family's defaults.
void GatherSimpleView(ConfigDialogContext* context) {
    HWND dialog = context->dialog;
    CProxyMap* first = FirstMap(context->config);
    if (first == nullptr) return;
    const DialogFamily& family = *context->family;
    first->ResetToDefaults();
    first->SetDefaultPort(family.defaultPort);
    first->SetProxyUser(family.defaultUser);
    char text[kSimpleFieldSize];
    FieldText(dialog, IDC_PROXY_ADDRESS, text, sizeof text);
    first->SetProxyAddress(text);
    first->SetUseProxy(text[0] != '\0' ? 1 : 0);
    if (IsSocks(family)) {
        first->ProtocolVersion = SelectedVersion(dialog);
        return;
    }
    FieldText(dialog, IDC_PROXY_PORT, text, sizeof text);
    first->SetProxyPort(text);
    first->BasicAuthentication = IsDlgButtonChecked(dialog, IDC_BASIC_AUTHENTICATION) == BST_CHECKED ? 1 : 0;
    // The user as typed: the map dialog's trim does not run here.
    FieldText(dialog, IDC_PROXY_USER, text, sizeof text);
    first->SetProxyUser(text);
}

int RunMapDialog(HWND owner, const DialogFamily& family, CProxyMap* record, uint32_t mode);

bool OneMapPlain(ConfigDialogContext* context, const CProxyMap* record) {
    return context->config->Count() < 2 && MapIsCustomised(context->family->id, record) == 0;
}

void AddMap(ConfigDialogContext* context) {
    const int selected = SelectedRow(context->list);
    CProxyMap* record = context->family->newMap();
    bool plain = true;
    if (RunMapDialog(context->dialog, *context->family, record, kAddMode) == IDOK) {
        // Ahead of the selected map, or first.
        context->config->InsertAt(selected >= 0 ? selected : 0, record);
        FillList(context, context->config->IndexOf(record));
        plain = MapIsCustomised(context->family->id, record) == 0;
    } else {
        delete record;
    }
    SetFocus(context->list);
    Enable(context->dialog, IDC_VIEW_SWITCH, context->config->Count() < 2 && plain);
}

void EditMap(ConfigDialogContext* context) {
    const int selected = SelectedRow(context->list);
    if (selected < 0) return;
    auto* record = static_cast<CProxyMap*>(context->config->At(static_cast<uint32_t>(selected)));
    if (record == nullptr) return;
    if (RunMapDialog(context->dialog, *context->family, record, kEditMode) == IDOK) FillList(context, selected);
    SetFocus(context->list);
    Enable(context->dialog, IDC_VIEW_SWITCH, OneMapPlain(context, record));
}

CProxyMap* NewDefaultMap(const DialogFamily& family) {
    CProxyMap* record = family.newMap();
    record->IsDefaultMap = 1;
    return record;
}

void RemoveMap(ConfigDialogContext* context) {
    const int selected = SelectedRow(context->list);
    if (selected < 0) return;
    auto* record = static_cast<CProxyMap*>(context->config->At(static_cast<uint32_t>(selected)));
    if (record == nullptr) return;
    context->config->Remove(record);
    delete record;
    // The list never stays empty.
    if (context->config->Count() == 0) context->config->Append(NewDefaultMap(*context->family));
    // 1028 as the fill leaves it: by the count alone.
    FillList(context, selected);
}

void MoveMap(ConfigDialogContext* context, int step) {
    const int selected = SelectedRow(context->list);
    if (selected < 0) return;
    const int target = selected + step;
    // Disabled at either end; a command that comes anyway would lose the map past the end.
    if (target < 0 || target >= static_cast<int>(context->config->Count())) return;
    CListNode* record = context->config->At(static_cast<uint32_t>(selected));
    if (record == nullptr) return;
    context->config->Remove(record);
    context->config->InsertAt(target, record);
    FillList(context, target);
}

void CellText(const DialogFamily& family, NMLVDISPINFOA* info) {
    const auto* record = reinterpret_cast<const CProxyMap*>(info->item.lParam);
    if (record == nullptr || (info->item.mask & LVIF_TEXT) == 0) return;
    char(&cell)[kCellTextSize] = *family.cell;
    switch (info->item.iSubItem) {
    case 0: {
        // The joined text may be longer than the cell: at most 63 bytes of it go there.
        char joined[kDestinationTextSize] = {};
        record->GetDestinationText(joined);
        BoundCell(cell, joined);
        info->item.pszText = cell;
        break;
    }
    case 1:
        cell[0] = '\0';
        record->GetProxyText(cell, kCellTextSize);
        info->item.pszText = cell;
        break;
    case 2:
        info->item.pszText = const_cast<char*>(record->GetUseProxy() == 1 ? record->GetProxyUser() : "");
        break;
    default:
        break;
    }
}

void InsertColumns(ConfigDialogContext* context) {
    RECT client = {};
    GetClientRect(context->list, &client);
    const ColumnWidths widths = MapListColumnWidths(client.right - client.left);
    const int columnWidths[] = {widths.destination, widths.proxy, widths.user};
    const UINT titles[] = {IDS_COLUMN_DESTINATION, IDS_COLUMN_PROXY, IDS_COLUMN_USER};
    for (int i = 0; i < 3; ++i) {
        char title[64] = {};
        LoadText(titles[i], title, sizeof title);
        LVCOLUMNA column = {};
        column.mask = LVCF_FMT | LVCF_WIDTH | LVCF_TEXT | LVCF_SUBITEM;
        column.fmt = LVCFMT_LEFT;
        column.cx = columnWidths[i];
        column.pszText = title;
        column.iSubItem = i;
        if (SendMessageA(context->list, LVM_INSERTCOLUMNA, static_cast<WPARAM>(i), reinterpret_cast<LPARAM>(&column)) <
            0) {
            break;
        }
    }
}

LONG BottomOf(HWND dialog, int id) {
    RECT rect = {};
    HWND control = GetDlgItem(dialog, id);
    if (control != nullptr) GetWindowRect(control, &rect);
    return rect.bottom;
}

void InitialiseMain(ConfigDialogContext* context, HWND dialog) {
    context->dialog = dialog;
    context->list = GetDlgItem(dialog, IDC_MAP_LIST);
    const DialogFamily& family = *context->family;
    // An empty set gets a default map, as after Remove: the simple view then has a record, and OK
    // stores it.
    if (context->config->Count() == 0) context->config->Append(NewDefaultMap(family));
    InsertColumns(context);
    FillList(context, 0);
    if (IsSocks(family)) FillVersionCombo(dialog, FirstMap(context->config));
    RECT outer = {};
    GetWindowRect(dialog, &outer);
    context->fullHeight = outer.bottom - outer.top;
    context->width = outer.right - outer.left;
    context->simpleHeight =
        SimpleViewHeight(context->fullHeight, BottomOf(dialog, IDC_FULL_VIEW_BOTTOM), BottomOf(dialog, IDC_VIEW_SWITCH));
    context->simpleView = OneMapPlain(context, FirstMap(context->config)) ? 1 : 0;
    ShowSimpleFields(context);
    ShowView(context, context->simpleView == 1);
    if (!IsSocks(family)) SendDlgItemMessageA(dialog, IDC_PROXY_PORT, EM_LIMITTEXT, 5, 0);
    Enable(dialog, IDC_VIEW_SWITCH, context->simpleView == 1);
    CentreOnParent(dialog);
}

void SwitchView(ConfigDialogContext* context) {
    if (context->simpleView == 1) {
        GatherSimpleView(context);
        ShowSimpleFields(context);
        ShowView(context, false);
        context->simpleView = 0;
    } else {
        ShowSimpleFields(context);
        ShowView(context, true);
        context->simpleView = 1;
    }
}

void MainCommand(ConfigDialogContext* context, int id) {
    switch (id) {
    case IDOK:
        if (context->simpleView == 1) GatherSimpleView(context);
        EndDialog(context->dialog, IDOK);
        break;
    case IDCANCEL:
        EndDialog(context->dialog, IDCANCEL);
        break;
    case IDC_ADD:
        AddMap(context);
        break;
    case IDC_EDIT:
        EditMap(context);
        break;
    case IDC_REMOVE:
        RemoveMap(context);
        break;
    case IDC_MOVE_UP:
        MoveMap(context, -1);
        break;
    case IDC_MOVE_DOWN:
        MoveMap(context, 1);
        break;
    case IDC_VIEW_SWITCH:
        SwitchView(context);
        break;
    default:
        break;
    }
}

INT_PTR MainNotify(ConfigDialogContext* context, const NMHDR* header) {
    if (header == nullptr || header->idFrom != IDC_MAP_LIST) return 0;
    switch (header->code) {
    case LVN_ITEMCHANGED:
        SelectionChanged(context);
        break;
    case NM_DBLCLK:
        EditMap(context);
        break;
    case LVN_GETDISPINFOA:
        CellText(*context->family,
                 reinterpret_cast<NMLVDISPINFOA*>(const_cast<NMHDR*>(header)));
        break;
    default:
        break;
    }
    return 0;
}

INT_PTR CALLBACK MainDialogProcedure(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
    auto* context = DialogContext<ConfigDialogContext>(dialog, message, lParam);
    if (context == nullptr) return 0;
    switch (message) {
    case WM_INITDIALOG:
        InitialiseMain(context, dialog);
        return 0;
    case WM_COMMAND:
        MainCommand(context, LOWORD(wParam));
        return 0;
    case WM_NOTIFY:
        return MainNotify(context, reinterpret_cast<const NMHDR*>(lParam));
    case WM_SYSCOMMAND:
        return HelpCommand(dialog, wParam, context->helpId);
    default:
        return 0;
    }
}

// ----- The map dialog -----

void ShowProxyFields(MapDialogContext* context) {
    HWND dialog = context->dialog;
    const CProxyMap* record = context->record;
    SetDlgItemTextA(dialog, IDC_PROXY_ADDRESS, record->GetProxyAddress());
    SetDlgItemTextA(dialog, IDC_PROXY_PORT, record->GetProxyPort());
    SetDlgItemTextA(dialog, IDC_PROXY_USER, record->GetProxyUser());
    if (!IsSocks(*context->family)) {
        SendDlgItemMessageA(dialog, IDC_BASIC_AUTHENTICATION, BM_SETCHECK,
                            record->BasicAuthentication != 0 ? BST_CHECKED : BST_UNCHECKED, 0);
    }
}

// Control 1008 sets UseProxy at once; the proxy fields follow it.
void UpdateProxyFields(MapDialogContext* context) {
    HWND dialog = context->dialog;
    if (GetDlgItem(dialog, IDC_DESTINATION_ADDRESS) == nullptr) return;
    const bool direct = IsChecked(dialog, IDC_DIRECT);
    CProxyMap* record = context->record;
    record->SetUseProxy(direct ? 0 : 1);
    // The default map's destination is not to be edited.
    Enable(dialog, IDC_DESTINATION_ADDRESS, record->IsDefaultMap == 0);
    Enable(dialog, IDC_DESTINATION_PORT, record->IsDefaultMap == 0);
    const DialogFamily& family = *context->family;
    for (int i = 0; i < family.proxyCount; ++i) Enable(dialog, family.proxyControls[i], !direct);
    if (direct) {
        SetDlgItemTextA(dialog, IDC_PROXY_ADDRESS, "");
        SetDlgItemTextA(dialog, IDC_PROXY_PORT, "");
        SetDlgItemTextA(dialog, IDC_PROXY_USER, "");
        if (!IsSocks(family)) SendDlgItemMessageA(dialog, IDC_BASIC_AUTHENTICATION, BM_SETCHECK, BST_UNCHECKED, 0);
    } else {
        ShowProxyFields(context);
    }
}

void InitialiseMap(MapDialogContext* context, HWND dialog) {
    CentreOnParent(dialog);
    context->dialog = dialog;
    CProxyMap* record = context->record;
    context->savedUseProxy = record->GetUseProxy();
    if (GetDlgItem(dialog, IDC_DESTINATION_ADDRESS) != nullptr) {
        char text[kFieldSize] = {};
        if (context->mode == kAddMode) {
            LoadText(IDS_ADD_MAP_TITLE, text, sizeof text);
            SetWindowTextA(dialog, text);
        }
        record->GetDestinationAddressText(text, sizeof text);
        SetDlgItemTextA(dialog, IDC_DESTINATION_ADDRESS, text);
        record->GetDestinationPortText(text, sizeof text);
        SetDlgItemTextA(dialog, IDC_DESTINATION_PORT, text);
        char count[32] = {};
        LoadText(IDS_PORT_COUNT, count, sizeof count);
        const int entries = ReadDecimal(count);
        HWND ports = GetDlgItem(dialog, IDC_DESTINATION_PORT);
        for (int i = 0; i < entries && ports != nullptr; ++i) {
            char entry[kFieldSize] = {};
            LoadText(static_cast<UINT>(IDS_PORT_FIRST + i), entry, sizeof entry);
            SendMessageA(ports, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(entry));
        }
        if (ports != nullptr) FitComboDropHeight(ports, kPortDropLines);
        if (record->GetUseProxy() == 0) SendDlgItemMessageA(dialog, IDC_DIRECT, BM_SETCHECK, BST_CHECKED, 0);
    }
    SendDlgItemMessageA(dialog, IDC_PROXY_PORT, EM_LIMITTEXT, 5, 0);
    if (record->GetUseProxy() == 1) ShowProxyFields(context);
    if (IsSocks(*context->family)) FillVersionCombo(dialog, record);
    UpdateProxyFields(context);
}

// OK and 1028 alike: the fields into the record over the family's defaults.
void GatherMap(MapDialogContext* context, int result) {
    HWND dialog = context->dialog;
    CProxyMap* record = context->record;
    const DialogFamily& family = *context->family;
    record->ResetToDefaults();
    record->SetDefaultPort(family.defaultPort);
    record->SetProxyUser(family.defaultUser);
    char text[kFieldSize];
    FieldText(dialog, IDC_DESTINATION_ADDRESS, text, sizeof text);
    if (text[0] != '\0') {
        record->SetDestinationAddress(text);
        FieldText(dialog, IDC_DESTINATION_PORT, text, sizeof text);
        record->SetDestinationPort(text);
    }
    if (IsChecked(dialog, IDC_DIRECT)) {
        record->SetUseProxy(0);
        EndDialog(dialog, result);
        return;
    }
    char address[kFieldSize];
    FieldText(dialog, IDC_PROXY_ADDRESS, address, sizeof address);
    record->SetProxyAddress(address);
    FieldText(dialog, IDC_PROXY_PORT, text, sizeof text);
    record->SetProxyPort(text);
    if (!IsSocks(family)) record->BasicAuthentication = IsChecked(dialog, IDC_BASIC_AUTHENTICATION) ? 1 : 0;
    FieldText(dialog, IDC_PROXY_USER, text, sizeof text);
    TrimUserTrailing(text);
    record->SetProxyUser(text);
    if (IsSocks(family)) record->ProtocolVersion = SelectedVersion(dialog);
    record->SetUseProxy(address[0] != '\0' ? 1 : 0);
    EndDialog(dialog, result);
}

INT_PTR CALLBACK MapDialogProcedure(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
    auto* context = DialogContext<MapDialogContext>(dialog, message, lParam);
    if (context == nullptr) return 0;
    switch (message) {
    case WM_INITDIALOG:
        InitialiseMap(context, dialog);
        return 1;
    case WM_COMMAND:
        switch (LOWORD(wParam)) {
        case IDOK:
            GatherMap(context, IDOK);
            break;
        case IDC_VIEW_SWITCH:
            // Kept: gathered as on OK, but the caller counts only 1: an add is dropped, while an edit
            // keeps its changes in the record without the list being filled again.
            GatherMap(context, IDC_VIEW_SWITCH);
            break;
        case IDCANCEL:
            // 1008 changed UseProxy at once; the other fields change only on OK.
            context->record->SetUseProxy(context->savedUseProxy);
            EndDialog(dialog, IDCANCEL);
            break;
        case IDC_DIRECT:
            UpdateProxyFields(context);
            break;
        default:
            break;
        }
        return 0;
    case WM_SYSCOMMAND:
        return HelpCommand(dialog, wParam, context->helpId);
    default:
        return 0;
    }
}

int RunMapDialog(HWND owner, const DialogFamily& family, CProxyMap* record, uint32_t mode) {
    MapDialogContext context;
    context.helpId = family.helpId;
    context.mode = mode;
    context.record = record;
    context.family = &family;
    return static_cast<int>(DialogBoxParamA(g_resourceLibrary.GetHandle(), MAKEINTRESOURCEA(family.mapTemplate), owner,
                                            MapDialogProcedure, reinterpret_cast<LPARAM>(&context)));
}

// ----- The editing cycle -----

// The common-controls manifest of this library, active while a dialog runs, so that the arrow
// buttons draw their images; without it the dialogs run as they are.
class ControlsActivation {
public:
    ControlsActivation() {
        ACTCTXA request = {};
        request.cbSize = sizeof request;
        request.dwFlags = ACTCTX_FLAG_HMODULE_VALID | ACTCTX_FLAG_RESOURCE_NAME_VALID;
        request.hModule = g_hModule;
        request.lpResourceName = MAKEINTRESOURCEA(kControlsManifest);
        context = CreateActCtxA(&request);
        if (context != INVALID_HANDLE_VALUE && !ActivateActCtx(context, &cookie)) cookie = 0;
    }
    ~ControlsActivation() {
        if (context == INVALID_HANDLE_VALUE) return;
        if (cookie != 0) DeactivateActCtx(0, cookie);
        ReleaseActCtx(context);
    }
    ControlsActivation(const ControlsActivation&) = delete;
    ControlsActivation& operator=(const ControlsActivation&) = delete;

private:
    HANDLE context = INVALID_HANDLE_VALUE;
    ULONG_PTR cookie = 0;
};

void ReadAfresh(const DialogFamily& family) {
    if (SettingsDocument != nullptr) {
        family.readFromXml();
    } else {
        family.readFromRegistry();
    }
}

int RunConfiguration(const DialogFamily& family, HWND owner) {
    InitCommonControls();
    CProxyMapSet* config = family.set();
    if (config == nullptr) return 0;
    ReadAfresh(family);
    auto* context = new (std::nothrow) ConfigDialogContext;
    if (context == nullptr) return 0;
    context->config = config;
    context->helpId = family.helpId;
    context->family = &family;
    INT_PTR result;
    {
        ControlsActivation activation;
        result = DialogBoxParamA(g_resourceLibrary.GetHandle(), MAKEINTRESOURCEA(family.mainTemplate),
                                 IsWindow(owner) ? owner : nullptr, MainDialogProcedure,
                                 reinterpret_cast<LPARAM>(context));
    }
    if (result == IDOK) {
        // A failed save is not reported: the user pressed OK.
        family.writeConfiguration();
    } else {
        ReadAfresh(family);
    }
    delete context;
    return result == IDOK ? 1 : 0;
}

// The busy message of the guard: none when its text cannot be loaded.
void ShowBusyMessage(HWND owner, UINT textId, UINT titleId) {
    char text[1024] = {};
    if (g_resourceLibrary.LoadResourceString(textId, text, sizeof text) <= 0) return;
    char title[256] = {};
    LoadText(titleId, title, sizeof title);
    MessageBoxA(owner, text, title, MB_ICONERROR);
}

// The family's global atom, seen by every process of the window station, held while `work` runs.
// Kept: find and add are two calls, so two starts at the same moment can both pass.
template <typename Result, typename Work>
Result UnderGuard(const DialogFamily& family, HWND owner, UINT busyText, UINT busyTitle, Work work) {
    if (GlobalFindAtomA(family.atomName) != 0) {
        ShowBusyMessage(owner, busyText, busyTitle);
        return Result();
    }
    ATOM atom = GlobalAddAtomA(family.atomName);
    Result result = work();
    GlobalDeleteAtom(atom);
    return result;
}

}  // namespace

int RunSocksConfiguration(HWND owner) { return RunConfiguration(kSocksDialog, owner); }

int RunHttpConfiguration(HWND owner) { return RunConfiguration(kHttpDialog, owner); }

int MapIsCustomised(ConfigFamily family, const CProxyMap* record) {
    if (record == nullptr) return 0;
    if (record->GetUseProxy() == 0 && record->GetProxyAddress()[0] != '\0') return 1;
    if (family == ConfigFamily::kHttp) {
        if (lstrcmpiA(record->GetDestinationAddress(), "*") != 0) return 1;
        if (lstrcmpiA(record->GetDestinationPort(), "*") != 0) return 1;
        return 0;
    }
    auto equal = [](const char* first, const char* second) {
        return CompareStringA(LOCALE_INVARIANT, NORM_IGNORECASE, first, -1, second, -1) == CSTR_EQUAL;
    };
    if (!equal(record->GetDestinationAddress(), "*")) return 1;
    if (!equal(record->GetDestinationPort(), "*")) return 1;
    if (!equal(record->GetProxyPort(), "1080")) return 1;
    if (!equal(record->GetProxyUser(), "Guest")) return 1;
    return 0;
}

int ConfigurationDialogExport(const char* exportName, ConfigFamily id, HWND owner) {
    ExportLog log(exportName);
    const DialogFamily& family = FamilyOf(id);
    int result = UnderGuard<int>(family, owner, family.busyText, family.busyTitle,
                                 [&]() { return RunConfiguration(family, owner); });
    log.End(result);
    return result;
}

const char* ShowXmlConfigDialogExport(const char* exportName, ConfigFamily id, HWND owner) {
    ExportLog log(exportName);
    const DialogFamily& family = FamilyOf(id);
    // Kept: the HTTP family's XML dialog reports a busy family through the SOCKS family's strings.
    const char* result = UnderGuard<const char*>(
        family, owner, IDS_SOCKS_DIALOG_OPEN, IDS_SOCKS_DIALOG_TITLE, [&]() -> const char* {
            // The registry layer stays bound to this empty registry for the rest of the process.
            if (g_xmlRegistry.CreateXmlRegistry(family.xmlRegistryFamily, nullptr) != 1) return nullptr;
            if (RunConfiguration(family, owner) != 1) return nullptr;
            return g_xmlRegistry.GetXml();
        });
    log.End(result != nullptr ? 1 : 0);
    return result;
}
