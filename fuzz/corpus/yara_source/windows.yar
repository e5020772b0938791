rule a
{
 condition: true // x
}
