"""dmclientsmrktcmp driven by name: one enrolment of a client in a campaign."""
import campaign_record_checks as checks

checks.define_tests(globals(), "dmclientsmrktcmp", "DMCLIENTSMRKTCMP",
                    [("Account", "text"), ("CampaignRecID", "text"), ("EffectiveDate", "date"),
                     ("RecID", "text")])
