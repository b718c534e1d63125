// Stands in for another platform library of the family: it defines the
// presence flag with a value that is not Tolan's.
int platformLibPresenceFlag = 1;
