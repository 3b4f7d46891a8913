// The height of a combo box's window that shows its drop-down list, free of the Windows API.
#pragma once

// (n * 8 + 15) * textHeight / 8, truncating towards 0: n lines of the list and nearly two for the edit
// part, n being `itemCount` (1 when 0) but at most `maxLines`. Held within the range of int.
int ComboDropHeight(int itemCount, int maxLines, int textHeight);
