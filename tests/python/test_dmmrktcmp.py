"""dmmrktcmp driven by name: one campaign."""
import campaign_record_checks as checks

checks.define_tests(globals(), "dmmrktcmp", "DMMRKTCMP",
                    [("CampaignDescription", "text"), ("CampaignEffectiveDate", "date"),
                     ("CampaignName", "text"), ("CampaignType", "long"), ("Disabled", "long"),
                     ("Interval", "long"), ("RecID", "text"), ("Reminder", "long")])
